#!/bin/sh
# The look of the sources, by .clang-format.
# usage: format.sh --check    fails where a source looks otherwise, and names it
#        format.sh --write    lays the sources out
set -eu
cd "$(dirname "$0")/.."

# All of it.
folders="common include lab platform bench tools operator tests"

case ${1:-} in
--check | --write) ;;
*)
    sed -n 's/^# \{0,1\}//p' "$0" | sed -n '2,4p' >&2
    exit 2
    ;;
esac

# Another version lays out otherwise.
format=clang-format-14
command -v "$format" > /dev/null || format=clang-format
"$format" --version | grep -q 'version 14\.' || {
    echo "clang-format 14 is needed (Debian 12: apt-get install clang-format)" >&2
    exit 1
}

# shellcheck disable=SC2086
find $folders -name '*.cpp' -o -name '*.h' -o -name '*.c' | sort > "${TMPDIR:-/tmp}/kesta-format.$$"
trap 'rm -f "${TMPDIR:-/tmp}/kesta-format.$$"' EXIT
if [ "$1" = --write ]; then
    xargs "$format" -i < "${TMPDIR:-/tmp}/kesta-format.$$"
    exit 0
fi
failed=0
while read -r file; do
    "$format" "$file" | cmp -s - "$file" || {
        echo "$file does not look like the others: scripts/format.sh --write" >&2
        failed=1
    }
done < "${TMPDIR:-/tmp}/kesta-format.$$"
exit $failed
