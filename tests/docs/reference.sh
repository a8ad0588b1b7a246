#!/bin/sh
# The reference of the headers, with every warning an error.
# usage: reference.sh SOURCE
set -eu
cd "$1"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
{ cat docs/reference/Doxyfile; echo "OUTPUT_DIRECTORY = $work"; } | doxygen -
for symbol in $(grep '^kest' tests/abi/exported_symbols.txt); do
    grep -rqs "\b$symbol\b" "$work/html" || {
        echo "the reference has no $symbol" >&2
        exit 1
    }
done
