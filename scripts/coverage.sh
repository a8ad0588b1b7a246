#!/bin/sh
# Which lines and branches of common/ the tests run.
# usage: coverage.sh BUILD_DIR REPORT_DIR
set -eu
cd "$(dirname "$0")/.."
build=$1
report=$2
mkdir -p "$report"
find "$build" -name '*.gcda' -delete
for program in library_test processes_test threads_test power_cut_test; do
    "$build/bin/$program" --gtest_brief=1 > "$report/$program.log" 2>&1 || {
        cat "$report/$program.log" >&2
        exit 1
    }
done
# Only a program with its owner's rights settles the environment of what it starts.
show=$(mktemp -d "$build/set-user-id.XXXXXX")
trap 'rm -rf "$show"' EXIT
install -m 4755 "$build/bin/environment_shower" "$show/shower"
chmod 711 "$show"
env 'BASH_FUNC_tar%%=() { evil; }' setpriv --reuid 54321 --clear-groups "$show/shower" > /dev/null
# --exclude-throw-branches: where only an exception of the standard library leads.
gcovr --root . --object-directory "$build" --filter common/ --exclude-throw-branches \
    --exclude-unreachable-branches --html-details "$report/index.html" --txt "$report/lines.txt" \
    --json "$report/lines.json" --fail-under-branch 95 > /dev/null
scripts/coverage_left.py "$report/lines.json" docs/testing.md
