#!/bin/sh
# The static library puts its names into its user's program: kestal_*, kesta_*, the documented global, and what is in
# namespace kesta. Weak ones may be the C++ library's too: templates that were made here.
# usage: static_symbols.sh LIBRARY
set -eu
library=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

LC_ALL=C
export LC_ALL

# Reads what nm prints, and writes the names that the library may not have.
foreign()
{
    c++filt | awk '
        NF < 3 { next }                                         # the names of the members
        { kind = $2; name = $0; sub(/^[^ ]+ [^ ]+ /, "", name) }
        name ~ /^(kestal_|kesta_)[A-Za-z0-9_]*$/ || name == "g_version_file_sync" { next }
        name ~ /^((vtable|typeinfo|typeinfo name|guard variable|TLS (init|wrapper) function) for )?kesta::/ { next }
        kind ~ /^[VWu]$/ && (name ~ /(std|__gnu_cxx|kesta)::/ || name == "DW.ref.__gxx_personality_v0") { next }
        { print kind, name }'
}

# A name that is foreign must not pass.
printf '%s\n' '0 T fdclose' '0 B tsize' '0 T kestal_system' '0 D g_version_file_sync' '0 T _ZN5kesta7fdcloseEv' \
    '0 T _Z7fdclosev' '0 W _Z7prckilli' '0 T _ZN6engine4saveEv' | foreign > "$work/planted"
printf '%s\n' 'T fdclose' 'B tsize' 'T fdclose()' 'W prckill(int)' 'T engine::save()' > "$work/expected"
if ! cmp "$work/planted" "$work/expected"; then
    echo "names that are foreign are not told from the library's own"
    exit 1
fi

nm -g --defined-only "$library" > "$work/symbols"
if ! grep -q ' T kestal_system$' "$work/symbols"; then
    echo "$library is not the static library"
    exit 1
fi
foreign < "$work/symbols" > "$work/foreign"
if [ -s "$work/foreign" ]; then
    echo "in the static library, and in the way of its users' names; move them into namespace kesta:"
    sort -u "$work/foreign" | sed 's/^/  /'
    exit 1
fi
echo "The static library has no names but its own."
