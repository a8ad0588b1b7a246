#!/bin/sh
# Builds the Debian packages, looks at them with lintian, and installs, uses and removes them in a root that
# has nothing of ours: the machine's own, seen through an overlay that is thrown away.
# usage: packages_test.sh SOURCE
set -eu
source=$(cd "$1" && pwd)
here=$source/tests/packages
work=$(mktemp -d /tmp/kesta-packages-XXXXXX)
trap 'rm -rf "$work"' EXIT

echo "== build"
# What is in them is compiled as shipped by the other tests; here it is installed and used.
DEB_BUILD_OPTIONS=noopt "$source/scripts/packages.sh" "$work/packages"

echo "== lintian"
lintian --fail-on error "$work"/packages/*.changes 2>&1 | grep -v 'root privileges' || true
lintian --fail-on error "$work"/packages/*.changes > "$work/lintian" 2>&1 || {
    cat "$work/lintian" >&2
    exit 1
}

echo "== a clean root"
as_root=""
[ "$(id -u)" -eq 0 ] || as_root="--map-root-user"
cp "$here/in_clean_root.sh" "$source/tests/install/program.c" "$source/tests/install/CMakeLists.txt" "$source/README.md" "$work"
# shellcheck disable=SC2086
unshare --mount $as_root sh -euc '
    work=$1
    mkdir "$work/overlay"
    mount -t tmpfs overlay "$work/overlay"
    mkdir "$work/overlay/upper" "$work/overlay/scratch" "$work/overlay/root"
    mount -t overlay overlay -o "lowerdir=/,upperdir=$work/overlay/upper,workdir=$work/overlay/scratch" \
        "$work/overlay/root"
    root=$work/overlay/root
    for folder in proc sys dev; do
        mount --rbind "/$folder" "$root/$folder"
    done
    for folder in run tmp; do
        mount -t tmpfs "$folder" "$root/$folder"
    done
    mkdir "$root/tmp/given"
    cp -r "$work"/packages "$work"/in_clean_root.sh "$work"/program.c "$work"/CMakeLists.txt "$work"/README.md "$root/tmp/given"
    cd "$root"
    mkdir -p old
    # Where the machine itself is only a folder of another one, this is not possible.
    if pivot_root . old 2> /dev/null; then
        umount -l /old
        rmdir /old
        exec sh /tmp/given/in_clean_root.sh
    fi
    rmdir old
    exec chroot . sh /tmp/given/in_clean_root.sh
' clean-root "$work"
