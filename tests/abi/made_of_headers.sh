#!/bin/sh
# The export map, the list of symbols, those of the Debian package and the manual page are what the headers say.
# usage: made_of_headers.sh SOURCE
set -eu
source=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

python3 "$source/scripts/interface.py" --check "$source"

# A function that is declared and stands in none of them must not pass.
(cd "$source" && cp -r --parents CMakeLists.txt include common/libkesta.map tests/abi/exported_symbols.txt \
    debian/libkesta1.symbols docs/man "$work")
sed -i 's,^KESTA_END_DECLS,/* Planted. */\nKESTA_API int kesta_planted(void);\n\nKESTA_END_DECLS,' "$work/include/kesta/cause.h"
if python3 "$source/scripts/interface.py" --check "$work" 2> "$work/told"; then
    echo "a function that was only declared is not found" >&2
    exit 1
fi
for file in common/libkesta.map tests/abi/exported_symbols.txt debian/libkesta1.symbols docs/man/libkesta.3; do
    grep -q "$file" "$work/told" || {
        echo "$file is not told to be stale" >&2
        exit 1
    }
done

# Made anew they have it, in the node of what came later.
python3 "$source/scripts/interface.py" --write "$work"
python3 "$source/scripts/interface.py" --check "$work"
sed -n '/^KESTA_1\.1 {/,$p' "$work/common/libkesta.map" | grep -q '^        kesta_planted;$'
grep -q '^ kesta_planted@KESTA_1\.1 ' "$work/debian/libkesta1.symbols"
