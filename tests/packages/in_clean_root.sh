#!/bin/sh
# Installs, uses and removes the packages that lie in /tmp/given.
set -eu
given=/tmp/given
cd /

files()
{
    find /etc /opt /usr /var /boot -xdev -not -path '/var/lib/dpkg/*' -not -path '/var/log/*' \
        -not -path '/var/cache/*' -not -path '/etc/ld.so.cache' 2> /dev/null | sort
}

expect_mode()
{
    [ "$(stat -c '%a %U' "$2")" = "$1" ] || {
        echo "$2 is $(stat -c '%a %U' "$2"), and not $1" >&2
        exit 1
    }
}

files > "$given/before"

# Somebody was there first.
mkdir -p /tmp/kesta_sys/tmp
ln -s /etc/hosts /tmp/kesta_sys/tmp/backup.tar.Z.tmp
chmod 777 /tmp/kesta_sys /tmp/kesta_sys/tmp
chown -R nobody /tmp/kesta_sys 2> /dev/null || true  # one who maps only root's number can't; the mode tells as well

echo "== install"
dpkg -i "$given"/packages/*.deb > "$given/log" 2>&1 || {
    cat "$given/log" >&2
    exit 1
}
dpkg --verify libkesta1 libkesta-dev libkesta-doc kesta-tools kesta-platform-embedded libkesta-platform-etcd kesta-lab
expect_mode "755 root" /etc/kesta_sys
for folder in /opt/kesta_sys/bakup /run/kesta_sys/tmp /tmp/kesta_sys/tmp /var/lib/kesta /var/lib/kesta/nv \
    /var/lib/kesta/sysback; do
    expect_mode "700 root" "$folder"
done
test ! -L /tmp/kesta_sys/tmp/backup.tar.Z.tmp
test -x /opt/kesta_sys/sbin/env_vpdctl

echo "== the pages"
# Each leads to pages of its own package only.
for package in libkesta1 libkesta-dev libkesta-doc kesta-tools kesta-platform-embedded kesta-lab; do
    dpkg -L "$package" | grep '\.md$' | while read -r page; do
        grep -o '](\([^)]*\))' "$page" | sed 's/^](//; s/)$//; s/#.*//' | grep -v '^https*:' | grep . |
            while read -r link; do
                there=$(realpath -m "$(dirname "$page")/$link")
                dpkg -L "$package" | grep -qxF "$there" || echo "$page leads to $link, which $package lacks"
            done
    done
done > "$given/links"
if [ -s "$given/links" ]; then
    cat "$given/links" >&2
    exit 1
fi
test -f /usr/share/doc/libkesta-doc/docs/operators.md
test -f /usr/share/zsh/vendor-completions/_kestactl
head -1 /usr/share/zsh/vendor-completions/_kestactl | grep -qx '#compdef kestactl'
kesta-lab --version | grep -q '^kesta-lab [0-9]'
kesta-platform-check --version | grep -q '^kesta-platform-check [0-9]'
kesta-platform --version | grep -q "^kesta-platform [0-9]"

echo "== the library"
# Linking the shared library needs nothing of libxml2's.
rm -rf /usr/include/libxml2 /usr/lib/*/libxml2.so /usr/lib/*/libxml2.a /usr/lib/*/pkgconfig/libxml-2.0.pc \
    /usr/lib/*/cmake/libxml2
mkdir "$given/consumer"
cp "$given/program.c" "$given/CMakeLists.txt" "$given/consumer"
cmake -S "$given/consumer" -B "$given/consumer/build" > "$given/log" 2>&1 &&
    cmake --build "$given/consumer/build" >> "$given/log" 2>&1 || {
    cat "$given/log" >&2
    exit 1
}
KESTA_PLATFORM_TRACE_TARGET=none "$given/consumer/build/with_shared" | grep -qx 'block 63'
# shellcheck disable=SC2046
cc -o "$given/program" "$given/program.c" $(pkg-config --cflags --libs libkesta)
KESTA_PLATFORM_TRACE_TARGET=none "$given/program" | grep -qx 'block 63'
man -w libkesta kestal_area_file_rw kestal_CONT0_to_CONT1 kestactl kesta-lab kesta-platform kesta-platform-check cpinfo eeprom env_vpdctl > /dev/null

echo "== the command line, on this machine"
mkdir -p /etc/kesta_sys/network
cat > /etc/kesta_sys/network/define.xml << 'X'
<group id="network" operation="update" type="files"><setinfo><file path="/etc/hosts"/></setinfo></group>
X
kestactl slot switch --backup kesta_backup0 --accept kesta_backup1 > /dev/null
kestactl save network > /dev/null
kestactl accept > /dev/null
# The program of the README, compiled as it says.
cd "$given"
awk '/^```c$/ { inside = 1; next } /^```/ { inside = 0 } inside' README.md > which-slot.c
sh -eu -c "$(grep '^cc -o which-slot' README.md)"
./which-slot | grep -qx 'backups go to kesta_backup0'
cd /
cp /etc/hosts "$given/hosts"
echo spoilt > /etc/hosts
kestactl restore network > /dev/null
cmp /etc/hosts "$given/hosts"
kestactl verify 2> /dev/null | grep -q 'All places agree'
kesta-platform-check --run > "$given/check" 2>&1 || {
    cat "$given/check" >&2
    exit 1
}
bash -c '. /usr/share/bash-completion/completions/kestactl; complete -p kestactl' > /dev/null

echo "== the etcd platform"
# Chosen for one command: it misses its cluster's address, and says so.
etcd=$(dirname "$(dpkg -L libkesta-platform-etcd | grep '/libsanfwctl.so.1$')")
LD_LIBRARY_PATH=$etcd KESTA_PLATFORM_TRACE_TARGET=stderr kestactl nv read 31 2>&1 | grep -q 'nv_endpoints is not set'

echo "== the lab"
kesta-lab create /tmp/lab > /dev/null
kesta-lab --dir /tmp/lab exec CNT3 -- kestactl --json status | grep -q '"controller": 3'
kesta-lab destroy /tmp/lab > /dev/null

echo "== remove"
dpkg -P kesta-lab kesta-tools libkesta-doc libkesta-dev libkesta1 libkesta-platform-etcd kesta-platform-embedded > "$given/log" 2>&1 || {
    cat "$given/log" >&2
    exit 1
}
# What operators saved stays; nothing of the packages does.
files > "$given/after"
comm -13 "$given/before" "$given/after" |
    grep -v -e '^/opt/kesta_sys' -e '^/etc/kesta_sys' -e '^/var/lib/kesta' -e '^/etc/my' -e '^/etc/cnt' \
        -e '^/opt$' > "$given/left" || true
if [ -s "$given/left" ]; then
    echo "left behind:" >&2
    cat "$given/left" >&2
    exit 1
fi
test -f /opt/kesta_sys/bakup/backup.tar.Z
test ! -e /opt/kesta_sys/sbin
echo "== done"
