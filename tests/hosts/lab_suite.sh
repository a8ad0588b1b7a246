#!/bin/sh
# The tests of the lab on the etcd platform: a cluster of three members, and keys of its own for each lab.
#   tests/hosts/lab_suite.sh BUILD_FOLDER [FILTER]      without a filter: all that look into no platform's own files
set -eu

tests=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$1" && pwd)
# These look into the files of the embedded platform, change them, or take its system backup area away.
embedded_only=$(sed -n 's/^\([A-Z][A-Za-z.]*\)$/\1/p' "$tests/hosts/embedded_only" | paste -sd :)
filter=${2:-*}
work=$(mktemp -d)

clean_up()
{
    "$tests/../scripts/etcd-cluster" down "$work/cluster" || true
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

"$tests/../scripts/etcd-cluster" up "$work/cluster" --quota 2147483648 > /dev/null
KESTA_TEST_PLATFORM=etcd
KESTA_PLATFORM_NV_ENDPOINTS=$(cat "$work/cluster/endpoints")
export KESTA_TEST_PLATFORM KESTA_PLATFORM_NV_ENDPOINTS
# Where it runs in the background, signals that are tried would be ignored.
env --default-signal=HUP,INT,QUIT "$build/bin/lab_test" --gtest_filter="$filter-PlatformCheck.*:LabHosts.*:*KilledCommand*:*Sweep*:$embedded_only"
