#!/bin/sh
# Checks the models of the locks exhaustively: what must be excluded is, and for what is not excluded the
# shortest run is printed.
#   scripts/check_models.sh [FOLDER_FOR_THE_RUNS]
set -eu

models=$(cd "$(dirname "$0")/../models" && pwd)
runs=${1:-}
work=$(mktemp -d "${TMPDIR:-/tmp}/kesta-models-XXXXXX")
trap 'rm -rf "$work"' EXIT
failed=0

# build MODEL PAN_OPTIONS DEFINES...
build()
{
    model=$1
    options=$2
    shift 2
    rm -rf "$work/pan" && mkdir "$work/pan" && cd "$work/pan"
    spin "$@" -a "$models/$model.pml" > spin.log 2>&1 || { cat spin.log; exit 1; }
    # shellcheck disable=SC2086
    cc -O2 -w -DSAFETY $options -o pan pan.c
}

# excluded MODEL WHAT DEFINES...: no run violates it.
excluded()
{
    model=$1
    what=$2
    shift 2
    build "$model" "-DCOLLAPSE -DVECTORSZ=2048" "$@"
    ./pan -m8000000 -w24 > pan.log 2>&1
    states=$(awk '/states, stored/ { print $1 }' pan.log)
    if grep -q "errors: 0" pan.log && ! grep -q "max search depth too small\|out of memory" pan.log; then
        echo "excluded ($states states): $what"
    else
        echo "NOT EXCLUDED: $what"
        tail -30 pan.log
        failed=1
    fi
}

# possible MODEL NAME WHAT DEFINES...: the shortest run that violates it.
possible()
{
    model=$1
    name=$2
    what=$3
    shift 3
    build "$model" "-DBFS -DVECTORSZ=2048" "$@"
    ./pan -w24 > pan.log 2>&1 || true
    if ! ls ./*.trail > /dev/null 2>&1; then
        echo "NO RUN FOUND: $what"
        tail -30 pan.log
        failed=1
        return
    fi
    echo "possible: $what"
    spin "$@" -k ./*.trail -T "$models/$model.pml" 2> /dev/null |
        grep -E "^ *(process|CNT)" | sed 's/^ */    /' > run.txt
    cat run.txt
    [ -z "$runs" ] || { mkdir -p "$runs" && cp run.txt "$runs/$name.txt"; }
}

echo "== the inner lock"
excluded inner_lock "three controllers, nobody dies" -DPROCS=3 -DLAYOUT=1
excluded inner_lock "four controllers, nobody dies" -DPROCS=4 -DLAYOUT=1
excluded inner_lock "two controllers, one dies" -DPROCS=2 -DLAYOUT=1 -DDEATHS=1
excluded inner_lock "three processes of one controller with the record lock, two may die" \
    -DPROCS=3 -DLAYOUT=0 -DRECORD -DDEATHS=2
excluded inner_lock "two processes on each of two controllers with the record lock, nobody dies" \
    -DPROCS=4 -DLAYOUT=2 -DRECORD
excluded inner_lock "three processes of one controller, one is stopped in its attempt, passed by, and goes on" \
    -DPROCS=3 -DLAYOUT=0 -DRECORD -DSTOPS=1
excluded inner_lock "three processes of one controller, two such stops" \
    -DPROCS=3 -DLAYOUT=0 -DRECORD -DSTOPS=2
excluded inner_lock "three processes of one controller, one is stopped so, one may die" \
    -DPROCS=3 -DLAYOUT=0 -DRECORD -DSTOPS=1 -DDEATHS=1
possible inner_lock passed_by_without_place "two that pass a stopped one by, without a place of their own" \
    -DPROCS=3 -DLAYOUT=0 -DRECORD -DSTOPS=1 -DONE_PLACE
possible inner_lock stopped_and_blind "a stopped one that goes on without looking at the clock" \
    -DPROCS=2 -DLAYOUT=0 -DRECORD -DSTOPS=1 -DBLIND
possible inner_lock stopped_before_write "one that is stopped between its look at the clock and its write" \
    -DPROCS=3 -DLAYOUT=0 -DRECORD -DSTOPS=1 -DBEFORE_WRITE
possible inner_lock without_record_lock "two processes of one controller without the record lock" \
    -DPROCS=2 -DLAYOUT=0
possible inner_lock sweep_outside "the record lock given back before the sweep, one dies" \
    -DPROCS=3 -DLAYOUT=0 -DRECORD -DSWEEP_OUTSIDE -DDEATHS=1
possible inner_lock stalled_holder "a holder that stalls past its time, and goes on" \
    -DPROCS=2 -DLAYOUT=1 -DSTALL
possible inner_lock two_sweepers "two controllers that clear the slot of one dead process" \
    -DPROCS=3 -DLAYOUT=3 -DRECORD -DDEATHS=1

echo "== the inner lock over conditional and fenced writes"
excluded fenced_lock "two controllers, a holder stalls past its time and goes on, twice" -DPROCS=2 -DSTALLS=2
excluded fenced_lock "three controllers, two that clear the slot of one that stalled" -DPROCS=3 -DSTALLS=1 -DONE_SECTION
excluded fenced_lock "three controllers, one dies in its section" -DPROCS=3 -DDEATHS=1 -DONE_SECTION
possible fenced_lock unfenced_holder "the stalled holder, without the fence" -DPROCS=2 -DSTALLS=1 -DNO_FENCE
possible fenced_lock unseen_sweep "a slot that was claimed anew is cleared, without a look at what it holds" \
    -DPROCS=2 -DSTALLS=1 -DNO_SEEN
possible fenced_lock unconditional "a write that comes late, without the condition" -DPROCS=2 -DSTALLS=1 -DNO_CONDITION

echo "== the command lock"
excluded command_lock "three controllers, type 1" -DCONTROLLERS=3 -DTYPES=0
excluded command_lock "three controllers, type 3" -DCONTROLLERS=3 -DTYPES=1
excluded command_lock "four controllers, type 1" -DCONTROLLERS=4 -DTYPES=0
excluded command_lock "three controllers, any type: only type 2 overlaps" -DCONTROLLERS=3 -DTYPES=2
excluded command_lock "two controllers, any type, suspending" -DCONTROLLERS=2 -DTYPES=2 -DSUSPEND
excluded command_lock "two controllers, any type, one dies" -DCONTROLLERS=2 -DTYPES=2 -DDEATHS=1
possible command_lock two_processes "two processes of one controller" \
    -DCONTROLLERS=2 -DTYPES=0 -DSAME
possible command_lock two_sweeps "two controllers that clear the lock of one dead holder" \
    -DCONTROLLERS=3 -DTYPES=0 -DDEATHS=1
exit $failed
