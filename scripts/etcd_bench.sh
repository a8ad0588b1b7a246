#!/bin/sh
# Measures the etcd platform of a build tree on a cluster of three members on this machine, in a lab's CNT0, and writes
# what it has measured as JSON.
#   scripts/etcd_bench.sh BUILD_FOLDER RESULTS [full]      full: also the members' memory after 5, 10, 15 and 20 archives
set -eu
build=$(cd "$1" && pwd)
results=$2
full=${3:-}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d /dev/shm/kesta-etcd-bench-XXXXXX)

clean_up()
{
    "$here/etcd-cluster" down "$work/cluster" || true
    [ ! -e "$work/lab/lab.conf" ] || "$build/bin/kesta-lab" destroy "$work/lab"
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

bench()
{
    "$build/bin/kesta-lab" --dir "$work/lab" exec CNT0 --bind "$build" -- env "LD_LIBRARY_PATH=$build/lib/etcd" \
        "KESTA_PLATFORM_NV_ENDPOINTS=$(cat "$work/cluster/endpoints")" KESTA_PLATFORM_TRACE_LEVEL=1 \
        KESTA_PLATFORM_TRACE_TARGET=stderr "$build/bench/etcd_bench" "$@"
}

# The largest of the members, in MiB.
memory_of_members()
{
    for member in 0 1 2; do
        awk '/^VmRSS/ { print int($2 / 1024) }' "/proc/$(cat "$work/cluster/member$member/pid")/status"
    done | sort -n | tail -1
}

"$here/etcd-cluster" up "$work/cluster" > /dev/null
"$build/bin/kesta-lab" create "$work/lab" > /dev/null
bench > "$results"
if [ -n "$full" ]; then
    memory=""
    for number in $(seq 20); do
        bench --archive
        [ $((number % 5)) -ne 0 ] || memory="$memory${memory:+, }[$number, $(memory_of_members)]"
    done
    sed -i "s/^\\]}\$/], \"members\": [$memory]}/" "$results"
fi
