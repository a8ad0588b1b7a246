#!/bin/sh
# Fuzzes every target, starting from the inputs in the tree.
#   scripts/fuzz.sh BUILD_FOLDER -runs=N | -max_total_time=SECONDS
set -eu

build=$(cd "$1" && pwd)
limit=$2
tests=$(cd "$(dirname "$0")/../tests" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/kesta-fuzz-XXXXXX")
trap 'rm -rf "$work"' EXIT

for program in "$build"/bin/*_fuzz; do
    target=$(basename "$program" _fuzz)
    mkdir "$work/$target"
    seeds="$tests/fuzz/corpus/$target"
    [ "$target" != definition ] || seeds="$seeds $tests/definition/corpus/accepted $tests/definition/corpus/refused"
    # shellcheck disable=SC2086
    "$program" "$limit" -seed=1 -max_len=8192 -print_final_stats=0 \
        -artifact_prefix="$build/$target-" "$work/$target" $seeds > "$work/$target.log" 2>&1 ||
        { tail -40 "$work/$target.log"; echo "the input is kept as $build/$target-..."; exit 1; }
    echo "$target: $(grep -E '^(Done|stat::number)' "$work/$target.log" | head -1)"
done
