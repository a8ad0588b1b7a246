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
grep -v '^#' "$list" | sort > "$work/promised"

status=0
complain() {
    if [ -s "$2" ]; then
        echo "$1:"
        sed 's/^/  /' "$2"
        status=1
    fi
}
comm -23 "$work/exported" "$work/promised" > "$work/unknown"
complain "exported, but not part of the interface" "$work/unknown"
comm -23 "$work/promised" "$work/exported" > "$work/lost"
complain "part of the interface, but no longer exported" "$work/lost"
# The functions of the first version, and what was added to them.
grep -v -e '^kesta_.*@@KESTA_1\.1$' -e '^\(kestal_\|g_version_file_sync\).*@@KESTA_1$' "$work/versioned" > "$work/elsewhere" || true
complain "not in the version node that it belongs to" "$work/elsewhere"
if ! readelf -d "$library" | grep -q 'SONAME.*\[libkesta\.so\.1\]'; then
    echo "the SONAME is not libkesta.so.1"
    status=1
fi
echo "$(wc -l < "$work/exported") symbols are there."
exit $status
