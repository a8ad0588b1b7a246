#!/bin/sh
# Each measuring program does all that it measures, a few times: nothing that it calls fails. No figure is looked at.
#   tests/bench/programs_run.sh BUILD_FOLDER
set -eu

build=$1
export PATH="$build/bin:$PATH"
lab=$(mktemp -d /dev/shm/kesta-bench-test-XXXXXX)
clean_up()
{
    [ ! -e "$lab/lab/lab.conf" ] || kesta-lab destroy "$lab/lab"
    rm -rf "$lab"
}
trap clean_up EXIT
kesta-lab create "$lab/lab"

on_cnt0()
{
    echo "$@"
    kesta-lab --dir "$lab/lab" exec CNT0 --bind "$build" -- env KESTA_BENCH_SLOTS=/opt/kesta_platform/shared/sysback \
        KESTA_PLATFORM_TRACE_LEVEL=1 "$@"
}

measure()
{
    program=$1
    shift
    on_cnt0 "$build/bench/$program" --benchmark_min_time=0.0001 "$@" > "$lab/out" 2>&1 || { cat "$lab/out"; exit 1; }
    if grep "ERROR OCCURRED" "$lab/out" || ! grep -q " ns\| us\| ms" "$lab/out"; then
        cat "$lab/out"
        exit 1
    fi
}

for program in block_access_bench inner_lock_bench lock_bench definition_bench trace_bench system_bench; do
    measure "$program"
done
measure nv_bench --benchmark_filter='dump|^(library|raw)_repair/'
measure copy_bench --benchmark_filter=/1/
on_cnt0 "$build/bench/contention_bench" inner 2 1
on_cnt0 "$build/bench/measured_run" 1 --before true -- true
