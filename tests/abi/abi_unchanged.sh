#!/bin/sh
# Holds the library's binary interface (functions, their arguments, the layout of every record that a
# caller sees) against the description that was checked in.
#   abi_unchanged.sh LIBRARY            fails where they differ, and says how
#   abi_unchanged.sh --update LIBRARY   writes the description anew: for a change that adds something
set -eu

here=$(cd "$(dirname "$0")" && pwd)
description="$here/libkesta.abi"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

describe()
{
    abidw --headers-dir "$here/../../include" --drop-private-types --exported-interfaces-only \
        --suppressions "$here/libkesta.suppr" --no-comp-dir-path --no-corpus-path --no-show-locs \
        "$1" | sed "s|path='[^']*/|path='|" > "$2"
}

if [ "$1" = --update ]; then
    describe "$2" "$description"
    exit 0
fi
describe "$1" "$work/now.abi"

# A description in which a function returns something else must not pass: the comparison sees types.
void=$(sed -n "s/.*type-decl name='void' id='\([^']*\)'.*/\1/p" "$description")
sed "/function-decl name='kestal_isdigit'/,/<return/s/<return type-id='[^']*'/<return type-id='$void'/" \
    "$description" > "$work/other.abi"
if cmp -s "$description" "$work/other.abi" ||
    ! abidiff "$work/other.abi" "$work/now.abi" 2>&1 | grep -q 'return type changed'; then
    echo "the comparison does not see a function that has changed its result"
    exit 1
fi

if ! abidiff "$description" "$work/now.abi"; then
    echo "The binary interface has changed. A change that breaks callers needs another SONAME; after one"
    echo "that only adds something, run tests/abi/abi_unchanged.sh --update LIBRARY."
    exit 1
fi
echo "The binary interface is as it was described."
