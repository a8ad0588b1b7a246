#!/bin/sh
# Measures the etcd platform of a build tree on a cluster of three members on this machine, in a lab's CNT0.
# usage: etcd_bench.sh BUILD_FOLDER
set -eu
build=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/kesta-etcd-bench-XXXXXX")
trap '"$here/etcd-cluster" down "$work/cluster" || true; rm -rf "$work"' EXIT
"$here/etcd-cluster" up "$work/cluster" > /dev/null
"$build/bin/kesta-lab" create "$work/lab" > /dev/null
"$build/bin/kesta-lab" --dir "$work/lab" exec CNT0 --bind "$build" -- env "LD_LIBRARY_PATH=$build/lib/etcd" \
    "KESTA_PLATFORM_NV_ENDPOINTS=$(cat "$work/cluster/endpoints")" KESTA_PLATFORM_TRACE_LEVEL=1 \
    KESTA_PLATFORM_TRACE_TARGET=stderr "$build/bench/etcd_bench"
