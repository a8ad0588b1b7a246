#!/bin/sh
# Builds the Debian packages from what is in the checkout.
# usage: packages.sh FOLDER      DEB_BUILD_OPTIONS is added to: noopt builds quicker
set -eu
cd "$(dirname "$0")/.."
mkdir -p "$1"
folder=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/libkesta"
tar -c --exclude=./build --exclude=./.git . | tar -x -C "$work/libkesta"
cd "$work/libkesta"
DEB_BUILD_OPTIONS="parallel=$(nproc) noautodbgsym ${DEB_BUILD_OPTIONS:-}" dpkg-buildpackage -b -us -uc > "$work/log" 2>&1 || {
    tail -50 "$work/log" >&2
    exit 1
}
rm -f "$folder"/*.deb "$folder"/*.changes "$folder"/*.buildinfo
mv "$work"/*.deb "$work"/*.changes "$work"/*.buildinfo "$folder"
ls "$folder"
