#!/bin/sh
# Looks whether programs and libraries are built with what is there against exploits.
# usage: hardened.sh FILE...
set -eu
failed=0
before=''

complain()
{
    echo "$1: $2" >&2
    failed=1
}

for file in "$@"; do
    headers=$(readelf -W -h -l -d -s "$file")
    code=$(objdump -d --no-show-raw-insn "$file")
    echo "$headers" | grep -q 'GNU_RELRO' || complain "$file" "no RELRO"
    echo "$headers" | grep -q 'BIND_NOW\|FLAGS.*NOW' || complain "$file" "RELRO is not full: symbols are bound lazily"
    echo "$headers" | grep -q 'Type: *DYN' || complain "$file" "not position independent"
    echo "$headers" | grep 'GNU_STACK' | grep -q 'RWE' && complain "$file" "executable stack"
    echo "$headers" | grep -q '__stack_chk_fail' || complain "$file" "no stack protector"
    # A library that copies into no buffer of known size has none of these.
    case $file in
    *libkesta.so* | *libsbacc.so* | */kestactl)
        echo "$headers" | grep -q '_chk@' || complain "$file" "not fortified"
        ;;
    esac
    if [ "$(uname -m)" = x86_64 ]; then
        echo "$code" | grep -q 'endbr64' || complain "$file" "no landing pads for indirect branches"
    fi
    for folder in $(echo "$headers" | sed -n 's/.*(R[A-Z]*PATH).*\[\(.*\)\]$/\1:/p' | sed 's/:/ : /g'); do
        case $folder in
        :) [ "$before" != : ] || complain "$file" "searches the current folder for libraries" ;;
        /* | \$ORIGIN*) ;;
        *) complain "$file" "searches a folder below the current one for libraries: $folder" ;;
        esac
        before=$folder
    done
    before=''
    case $file in
    *.so*) echo "$headers" | grep -q 'NODELETE' || complain "$file" "can be unloaded, and leaves its descriptors and maps" ;;
    esac
    echo "$headers" | grep -q 'TEXTREL' && complain "$file" "relocations in the code"
    echo "$headers" | grep 'LOAD' | grep -q 'RWE' && complain "$file" "a segment that is written and executed"
done
[ $failed -eq 0 ] && echo "$# files are hardened"
exit $failed
