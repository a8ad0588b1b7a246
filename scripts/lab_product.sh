#!/bin/sh
# The programs and libraries of a build as a lab takes them, without what only a debugger needs: each lab copies them, and
# what a sanitizer is built with has many times its own size of that.
#   scripts/lab_product.sh BUILD_FOLDER TO [STRIP]
set -eu

build=$1
to=$2
strip=${3:-strip}
recipes=share/kesta/platform

rm -rf "$to"
mkdir -p "$to/bin" "$to/$recipes"
cp "$build/$recipes"/*.recipe "$to/$recipes"
for program in kestactl kesta-lab kesta-platform-check $(sed -n 's/^\(sbin\|product\) //p' "$to/$recipes"/*.recipe); do
    [ ! -e "$build/bin/$program" ] || cp -f "$build/bin/$program" "$to/bin"
done
(cd "$build" && find lib -name "*.so*" -print0 | tar --null -cf - -T -) | tar -C "$to" -xf -
find "$to/bin" "$to/lib" -type f | while read -r file; do
    case $(head -c 4 "$file" | od -An -c | tr -d ' ') in
        177ELF) "$strip" --strip-debug "$file" ;;
    esac
done
