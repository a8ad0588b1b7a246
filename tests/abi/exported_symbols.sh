#!/bin/sh
# Compares what the library exports with the list of its binary interface.
# usage: exported_symbols.sh LIBRARY LIST
set -eu
library=$1
list=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

LC_ALL=C
export LC_ALL
nm -D --defined-only "$library" | awk '$2 != "A" { print $3 }' > "$work/versioned"
sed 's/@.*//' "$work/versioned" | sort -u > "$work/exported"
awk '!/^#/ && NF == 1 { print $1 }' "$list" | sort > "$work/promised"
awk '!/^#/ && $2 == "planned" { print $1 }' "$list" | sort > "$work/planned"
sort -m "$work/promised" "$work/planned" > "$work/known"

status=0
complain() {
    if [ -s "$2" ]; then
        echo "$1:"
        sed 's/^/  /' "$2"
        status=1
    fi
}
comm -23 "$work/exported" "$work/known" > "$work/unknown"
complain "exported, but not part of the interface" "$work/unknown"
comm -23 "$work/promised" "$work/exported" > "$work/lost"
complain "part of the interface, but no longer exported" "$work/lost"
comm -12 "$work/planned" "$work/exported" > "$work/arrived"
complain "exported now: take the word \"planned\" off" "$work/arrived"
# The functions of the first version, and what was added to them.
grep -v -e '^kesta_.*@@KESTA_1\.1$' -e '^\(kestal_\|g_version_file_sync\).*@@KESTA_1$' "$work/versioned" > "$work/elsewhere" || true
complain "not in the version node that it belongs to" "$work/elsewhere"
if ! readelf -d "$library" | grep -q 'SONAME.*\[libkesta\.so\.1\]'; then
    echo "the SONAME is not libkesta.so.1"
    status=1
fi
echo "$(wc -l < "$work/promised") of $(wc -l < "$work/known") symbols are there."
if [ -s "$work/planned" ]; then
    echo "missing until they are built:"
    sed 's/^/  /' "$work/planned"
fi
exit $status
