#!/bin/sh
# Every test that docs/testing.md and docs/security.md name is there.
# usage: testing_page.sh SOURCE
set -eu
cd "$1"
failed=0
for name in $(grep -oh '`[A-Z][A-Za-z0-9]*\.[A-Z][A-Za-z0-9]*`' docs/testing.md docs/security.md | tr -d '`' | sort -u); do
    suite=${name%.*}
    test=${name#*.}
    grep -rqsE "TEST(_[FP])?\($suite, $test\)" tests --include='*.cpp' || {
        echo "docs/testing.md or docs/security.md names $name, which is not there" >&2
        failed=1
    }
done
exit $failed
