#!/bin/sh
# Installs the build tree into a folder of its own and uses it as another project would.
# usage: install_test.sh BUILD_DIR
set -eu
build=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" > "$work/log"
libdir=$(dirname "$(find "$prefix" -name libkesta.so.1)")
test -f "$libdir/libkesta.a"
test -f "$libdir/pkgconfig/libkesta.pc"

echo "== a plain C program through pkg-config"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
strict="-Wall -Wextra -Wpedantic -Werror"
# shellcheck disable=SC2046
cc -std=c11 $strict "$here/program.c" $(pkg-config --cflags --libs libkesta) -o "$work/program"
export KESTA_PLATFORM_TRACE_TARGET=none
test "$(LD_LIBRARY_PATH=$libdir "$work/program")" = "block 63"

echo "== the same with the static library"
# shellcheck disable=SC2046
cc -std=c11 $strict "$here/program.c" $(pkg-config --cflags libkesta) "$libdir/libkesta.a" \
    -L"$libdir" -lmc_logapi -lsanfwctl -lsbacc -lvrbapi -lstdc++ -lpthread -o "$work/static"
test "$(LD_LIBRARY_PATH=$libdir "$work/static")" = "block 63"

echo "== a moved tree"
mv "$prefix" "$work/moved"
libdir=$work/moved${libdir#"$prefix"}
PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046
cc -std=c11 $strict "$here/program.c" $(pkg-config --cflags --libs libkesta) -o "$work/program"
test "$(LD_LIBRARY_PATH=$libdir "$work/program")" = "block 63"

echo "== find_package(kesta)"
cmake -S "$here" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$work/moved" > "$work/log"
cmake --build "$work/consumer" >> "$work/log"
test "$("$work/consumer/with_shared")" = "block 63"

echo "== find_package(kesta) without libxml2's development files"
cmake -S "$here" -B "$work/without" -DCMAKE_PREFIX_PATH="$work/moved" \
    -DCMAKE_DISABLE_FIND_PACKAGE_LibXml2=ON > "$work/log"
cmake --build "$work/without" >> "$work/log"
test "$("$work/without/with_shared")" = "block 63"

echo "== every public header alone, as C11 and as C++20"
for header in $(cd "$work/moved/include" && find kesta -name '*.h' | sort); do
    printf '#include <%s>\n#include <%s>\nextern int something;\n' "$header" "$header" > "$work/header.c"
    cp "$work/header.c" "$work/header.cpp"
    cc -std=c11 $strict -Wstrict-prototypes -I"$work/moved/include" \
        -I"$work/moved/include/kesta/platform" -fsyntax-only "$work/header.c"
    c++ -std=c++20 $strict -I"$work/moved/include" -I"$work/moved/include/kesta/platform" \
        -fsyntax-only "$work/header.cpp"
done

echo "== the installed programs"
"$work/moved/bin/kestactl" --version
"$work/moved/bin/cpinfo" -N
"$work/moved/bin/kesta-lab" create "$work/lab" --product "$work/moved"
"$work/moved/bin/kesta-lab" --dir "$work/lab" exec CNT2 -- kestactl status --json > "$work/status"
grep -q '"controller": 2' "$work/status"
"$work/moved/bin/kesta-lab" destroy "$work/lab"
test -L "$work/moved/sbin/tar"
test -e "$work/moved/share/man/man1/kestactl.1"
test -e "$work/moved/share/zsh/site-functions/_kestactl"
"$work/moved/bin/kesta-lab" --version | grep -q '^kesta-lab [0-9]'

echo "== each function has a manual page by its name"
for name in $(nm -D --defined-only "$libdir/libkesta.so.1" | sed -n 's/.* T \(kesta[A-Za-z0-9_]*\)@.*/\1/p'); do
    test "$(cat "$work/moved/share/man/man3/$name.3")" = ".so man3/libkesta.3"
done
