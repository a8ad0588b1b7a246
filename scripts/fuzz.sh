#!/bin/sh
# Fuzzes targets, starting from the inputs in the tree, and prints how often each one ran and what of the code
# that reached: its edges (cov) and the features that tell inputs apart (ft).
#   scripts/fuzz.sh BUILD_FOLDER -runs=N | -max_total_time=SECONDS [TARGET...]
#   scripts/fuzz.sh BUILD_FOLDER cpu=SECONDS [TARGET...]     so much processor time for each
#   scripts/fuzz.sh BUILD_FOLDER check [TARGET...]           as many runs as fit in the tests
# With KESTA_FUZZ_KEEP=FOLDER what is found is kept there for another run, in a folder for each target;
# scripts/fuzz_corpus.sh brings it into the tree.
set -eu

build=$(cd "$1" && pwd)
limit=$2
shift 2
tests=$(cd "$(dirname "$0")/../tests" && pwd)
if [ -n "${KESTA_FUZZ_KEEP:-}" ]; then
    mkdir -p "$KESTA_FUZZ_KEEP"
    work=$(cd "$KESTA_FUZZ_KEEP" && pwd)
else
    work=$(mktemp -d "${TMPDIR:-/tmp}/kesta-fuzz-XXXXXX")
    trap 'rm -rf "$work"' EXIT
fi

# Freed memory is watched for a while; for longer, it would cost more time than the targets take.
export ASAN_OPTIONS="${ASAN_OPTIONS:-quarantine_size_mb=8:malloc_context_size=8}"

# Those that put files in place, ask every verb, or talk over sockets, take their time.
runs_in_tests() {
    case $1 in
        report) echo 120 ;;
        state | etcd_server) echo 600 ;;
        restore*) echo 1000 ;;
        arguments) echo 8000 ;;
        *) echo 50000 ;;
    esac
}

seconds_used() { sed 's/^.*) //' "/proc/$1/stat" 2> /dev/null | awk -v hz="$(getconf CLK_TCK)" '{ print int(($12 + $13) / hz) }'; }

# Ends the process when it has used so much processor time: it then tells its results like any other.
limit_cpu() {
    while used=$(seconds_used "$1") && [ -n "$used" ]; do
        [ "$used" -lt "$2" ] || { kill -USR1 "$1"; return 0; }
        sleep 1
    done
}

fuzz() {
    target=$1
    mkdir -p "$work/$target"
    set -- "$work/$target"
    for seeds in "$tests/fuzz/corpus/$target" "$tests/$target/corpus/accepted" "$tests/$target/corpus/refused"; do
        [ ! -d "$seeds" ] || set -- "$@" "$seeds"
    done
    [ ! -f "$tests/fuzz/dict/$target.dict" ] || set -- "-dict=$tests/fuzz/dict/$target.dict" "$@"
    case $limit in
        check) set -- "-runs=$(runs_in_tests "$target")" "$@" ;;
        cpu=*) ;;
        *) set -- "$limit" "$@" ;;
    esac
    "$build/bin/${target}_fuzz" -seed="${KESTA_FUZZ_SEED:-1}" -max_len=8192 -print_final_stats=1 \
        -handle_usr1=1 -artifact_prefix="$build/$target-" "$@" > "$work/$target.log" 2>&1 &
    program=$!
    case $limit in cpu=*) limit_cpu "$program" "${limit#cpu=}" ;; esac
    wait "$program" || {
        tail -40 "$work/$target.log"
        echo "the input is kept as $build/$target-..."
        exit 1
    }
    echo "$target: $(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$target.log") executions," \
        "$(grep -aoE 'cov: [0-9]+ ft: [0-9]+' "$work/$target.log" | tail -1)," \
        "$(sed -n 's/^stat::new_units_added: *//p' "$work/$target.log") new inputs"
}

[ $# -gt 0 ] || set -- $(basename -a "$build"/bin/*_fuzz | sed 's/_fuzz$//')
for name in "$@"; do
    fuzz "$name"
done
