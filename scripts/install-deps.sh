#!/bin/sh
# Installs what building, testing and demonstrating needs, from Debian's own packages. Does nothing
# where all of it is there; asks for sudo only when it is not root.
set -eu

packages="
    ca-certificates build-essential make cmake ninja-build pkg-config
    g++ gcc clang clang-tidy clang-format libclang-rt-14-dev binutils
    libxml2-dev libarchive-dev libcli11-dev nlohmann-json3-dev nettle-dev
    libgtest-dev libgmock-dev libbenchmark-dev libsqlite3-dev
    etcd-server etcd-client libnghttp2-dev libssl-dev openssl
    spin
    tar bzip2 lbzip2 coreutils findutils util-linux mount procps python3 strace iproute2
    xxd bsdextrautils abigail-tools chromium
    doxygen groff-base man-db debhelper dpkg-dev fakeroot lintian gcovr
"

# What makes folders at boot; it comes with systemd where there is one.
command -v systemd-tmpfiles > /dev/null || packages="$packages systemd-standalone-tmpfiles"

missing=""
for package in $packages; do
    state=$(dpkg-query -W -f '${Status}' "$package" 2> /dev/null || true)
    if [ "$state" != "install ok installed" ]; then
        missing="$missing $package"
    fi
done
if [ -z "$missing" ]; then
    exit 0
fi

as_root=""
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo > /dev/null; then
        echo "These packages are missing, and neither root nor sudo is here to install them:" >&2
        echo " $missing" >&2
        exit 1
    fi
    as_root=sudo
fi
echo "Installing:$missing"
$as_root env DEBIAN_FRONTEND=noninteractive apt-get update -q
# No service is to be started or enabled by it: the tests start members of their own.
policy=/usr/sbin/policy-rc.d
if [ ! -e $policy ]; then
    printf '#!/bin/sh\nexit 101\n' | $as_root tee $policy > /dev/null
    $as_root chmod 755 $policy
    trap '$as_root rm -f $policy' EXIT
fi
# shellcheck disable=SC2086
$as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -q --no-install-recommends $missing
case $missing in
*etcd-server*) ! command -v systemctl > /dev/null || $as_root systemctl disable -q etcd.service || true ;;
esac
