#!/bin/sh
# kesta-platform-check on a cluster of three members, in a lab's CNT0.
# usage: check_test.sh SOURCE BUILD [--tls]
set -eu
source=$1
build=$2
work=$(mktemp -d /dev/shm/kesta-check-XXXXXX)
trap '"$source/scripts/etcd-cluster" down "$work/cluster" || true; rm -rf "$work"' EXIT
"$source/scripts/etcd-cluster" up "$work/cluster" ${3:+"$3"} > /dev/null
"$build/bin/kesta-lab" create "$work/lab" > /dev/null
"$build/bin/kesta-lab" --dir "$work/lab" exec CNT0 --bind "$build" --bind "$work/cluster" -- \
    env "LD_LIBRARY_PATH=$build/lib/etcd" "KESTA_PLATFORM_CONF=$work/cluster/platform.conf" \
    KESTA_PLATFORM_TRACE_FILE=/tmp/trace.log KESTA_PLATFORM_STATUS_FILE=/tmp/status \
    "$build/bin/kesta-platform-check" --run
