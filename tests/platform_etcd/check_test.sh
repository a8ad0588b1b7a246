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
# The cluster's settings stand before those of the lab.
settings=$(sed -n 's/^\([a-z_]*\) = /\1=/p' "$work/cluster/platform.conf" | while IFS='=' read -r key value; do
    echo "KESTA_PLATFORM_$(echo "$key" | tr a-z A-Z)=$value"
done)
# shellcheck disable=SC2086
"$build/bin/kesta-lab" --dir "$work/lab" exec CNT0 --bind "$build" --bind "$work/cluster" -- \
    env "LD_LIBRARY_PATH=$build/lib/etcd" $settings "$build/bin/kesta-platform-check" --run
