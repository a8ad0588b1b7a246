#!/bin/sh
# Every test that docs/testing.md names is there.
# usage: testing_page.sh SOURCE
set -eu
cd "$1"
failed=0
for name in $(grep -o '`[A-Z][A-Za-z0-9]*\.[A-Z][A-Za-z0-9]*`' docs/testing.md | tr -d '`' | sort -u); do
    suite=${name%.*}
    test=${name#*.}
    grep -rqs "TEST_[FP]($suite, $test)" tests --include='*.cpp' || {
        echo "docs/testing.md names $name, which is not there" >&2
        failed=1
    }
done
exit $failed
