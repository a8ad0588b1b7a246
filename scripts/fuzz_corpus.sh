#!/bin/sh
# Brings what a run of scripts/fuzz.sh has kept into the tree: of it and of what is there, the inputs that
# reach everything the whole of it reaches, the small ones first. What has a name in the tree keeps it, and stays.
#   scripts/fuzz_corpus.sh BUILD_FOLDER KEPT_FOLDER [TARGET...]
set -eu

build=$(cd "$1" && pwd)
kept=$(cd "$2" && pwd)
corpus=$(cd "$(dirname "$0")/../tests/fuzz/corpus" && pwd)
most_bytes=4096
shift 2

[ $# -gt 0 ] || set -- $(cd "$kept" && find . -mindepth 1 -maxdepth 1 -type d | sed 's|./||')
for target in "$@"; do
    small=$(mktemp -d "${TMPDIR:-/tmp}/kesta-corpus-XXXXXX")
    mkdir -p "$corpus/$target" "$small/in" "$small/out"
    find "$kept/$target" -type f -size "-${most_bytes}c" -exec cp -t "$small/in" {} +
    "$build/bin/${target}_fuzz" -set_cover_merge=1 -max_len=$most_bytes "$small/out" "$corpus/$target" "$small/in" \
        > "$small/log" 2>&1 || { tail -20 "$small/log"; exit 1; }
    for input in "$corpus/$target"/*; do
        [ -f "$input" ] || continue  # the target is new
        hash=$(sha1sum "$input" | cut -d' ' -f1)
        [ "$(basename "$input")" = "$hash" ] || { rm -f "$small/out/$hash"; cp "$input" "$small/out/"; }
    done
    rm -rf "${corpus:?}/$target"
    mv "$small/out" "$corpus/$target"
    echo "$target: $(find "$corpus/$target" -type f | wc -l) inputs, $(du -sb "$corpus/$target" | cut -f1) bytes"
    rm -rf "$small"
done
