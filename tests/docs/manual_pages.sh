#!/bin/sh
# The manual pages: without errors, up to date, and with every command and option in them.
# usage: manual_pages.sh SOURCE KESTACTL KESTA_LAB
set -eu
source=$1
kestactl=$2
lab=$3
cd "$source"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0

for page in docs/man/*.[13]; do
    LC_ALL=C.UTF-8 groff -man -ww -Tutf8 "$page" 2> "$work/errors" > /dev/null
    if [ -s "$work/errors" ]; then
        echo "$page:" >&2
        cat "$work/errors" >&2
        failed=1
    fi
done

for symbol in $(grep '^kestal_' tests/abi/exported_symbols.txt); do
    grep -q "\b$symbol\b" docs/man/libkesta.3 || {
        echo "libkesta.3 has no $symbol" >&2
        failed=1
    }
done

# Each command's help has examples.
"$kestactl" completion bash | grep -o "^        '[^']*') words" | sed "s/^        '//; s/') words//" |
    grep -v -e '--' | while read -r command; do
    # shellcheck disable=SC2086
    "$kestactl" $command --help | grep -q '^Examples:' || echo "kestactl $command --help has no examples"
done > "$work/bare"
if [ -s "$work/bare" ]; then
    cat "$work/bare" >&2
    failed=1
fi

# What a program's help lists, its page has.
for program in "$kestactl" "$lab"; do
    name=$(basename "$program")
    sed 's/\\-/-/g; s/\\f.//g; s/^\.[A-Z]* //; s/"//g' "docs/man/$name.1" > "$work/page"
    if [ "$name" = kestactl ]; then
        "$program" completion bash | grep -o -e "'[ a-z0-9-]* --[a-z-]*'" -e "^        ' [^']*')" |
            sed "s/^ *'//; s/')*$//" > "$work/listed"
    else
        "$program" --help | sed -n '/^Subcommands:/,$s/^  \([a-z][a-z-]*\) .*/ \1/p' > "$work/listed"
    fi
    [ -s "$work/listed" ] || {
        echo "$name lists no commands" >&2
        failed=1
    }
    tr ' ' '\n' < "$work/listed" | sort -u | while read -r word; do
        case $word in "" | --help | --version) continue ;; esac
        grep -q -e "$word" "$work/page" || echo "$name.1 does not mention $word"
    done > "$work/missing"
    if [ -s "$work/missing" ]; then
        cat "$work/missing" >&2
        failed=1
    fi
done
exit $failed
