#!/bin/sh
# Measures, each figure beside its raw cost, and writes the table of ratios to docs/performance.md.
#   scripts/bench.sh BUILD_FOLDER [REPORT]
# BENCH_FULL=1 measures large sizes as well: copies of 1 GB, saves of 100 MB in 20,000 files, the memory of a cluster's members
# after 20 archives. BENCH_ONLY=commands or etcd leaves the rest out, and writes what it measures to the screen alone;
# BENCH_ONLY=instructions counts those of the commands with valgrind, where the machine counts none.
set -eu

build=$(cd "${1:-build/release}" && pwd)
scripts=$(cd "$(dirname "$0")" && pwd)
report=${2:-"$scripts/../docs/performance.md"}
PATH="$build/bin:$PATH"
memory=$(mktemp -d /dev/shm/kesta-bench-XXXXXX)
disk=$(mktemp -d "${TMPDIR:-/var/tmp}/kesta-bench-XXXXXX")

clean_up()
{
    for place in "$memory/lab" "$disk/lab" "$memory/commands"; do
        [ ! -e "$place/lab.conf" ] || kesta-lab destroy "$place"
    done
    rm -rf "$memory" "$disk"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

# measure LAB PROGRAM NAME [OPTION...]: on CNT0 of the lab, in alternation.
measure()
{
    place=$1
    program=$2
    name=$3
    shift 3
    echo "measuring: $name"
    kesta-lab --dir "$place/lab" exec CNT0 --bind "$build" -- \
        env KESTA_BENCH_SLOTS=/opt/kesta_platform/shared/sysback "$@" \
        > "$disk/$name.json" 2> "$disk/$name.log" || { cat "$disk/$name.log"; exit 1; }
}

bench()
{
    measure "$1" "$2" "$3" KESTA_PLATFORM_TRACE_LEVEL="$4" "$build/bench/$2" \
        --benchmark_format=json --benchmark_enable_random_interleaving=true \
        --benchmark_repetitions="$5" --benchmark_filter="${6:-.}"
}

full=${BENCH_FULL:+full}
if [ "${BENCH_ONLY:-}" = etcd ]; then
    "$scripts/etcd_bench.sh" "$build" "$disk/etcd.json" "$full"
    python3 "$scripts/bench_report.py" /dev/null "$disk/etcd.json"
    exit 0
fi
kesta-lab create "$memory/commands"  # of their own: the programs leave NV memory as no verify would pass it
kesta-lab create "$memory/lab"
kesta-lab create "$disk/lab"
if [ "${BENCH_ONLY:-}" = commands ]; then
    python3 "$scripts/bench_commands.py" "$build" "$memory/commands" "$disk/commands.json" "$full"
    python3 "$scripts/bench_report.py" /dev/null "$disk/commands.json"
    exit 0
fi
if [ "${BENCH_ONLY:-}" = instructions ]; then
    python3 "$scripts/bench_instructions.py" "$build" "$memory/commands"
    exit 0
fi
bench "$memory" block_access_bench block_access 1 15
bench "$memory" inner_lock_bench inner_lock 1 15
bench "$memory" lock_bench lock 1 15
bench "$memory" definition_bench definition 1 15
bench "$memory" trace_bench trace 1 15
bench "$memory" system_bench system 1 9
bench "$memory" nv_bench dump 1 9 dump
bench "$memory" nv_bench repair 1 15 '^(library|raw)_repair/'
measure "$memory" nv_bench slow_repair KESTA_PLATFORM_TRACE_LEVEL=1 KESTA_BENCH_SLOW_AREA=1 \
    "$build/bench/nv_bench" --benchmark_format=json --benchmark_repetitions=3 \
    --benchmark_filter='^slow_'
# One flow at a time, in alternation with its raw cost: the memory of another flow is not in between.
for size in 1 100 ${full:+1000}; do
    for flow in backup2tmp_check backup2tmp cntbackup2tmp cntbackup2backup merge_file2accept \
        backup2copy sysback2current; do
        repetitions=9
        [ "$size" -lt 1000 ] || repetitions=3
        bench "$disk" copy_bench "copy_${flow}_$size" 1 "$repetitions" "^(flow|raw)_$flow/$size/"
    done
done
echo "measuring: the etcd platform"
"$scripts/etcd_bench.sh" "$build" "$disk/etcd.json" "$full"
echo "measuring: commands"
python3 "$scripts/bench_commands.py" "$build" "$memory/commands" "$disk/commands.json" "$full"

python3 "$scripts/bench_report.py" "$report" "$disk"/*.json
