#!/bin/sh
# env_tarz_assign_distribute.sh DIRECTORY: opens a saved environment for a change of identity.
#
# Unpacks backup.tar.Z of the folder into the staging tree, which is replaced. The merge cache stands for
# what was fetched from the system backup area: its archive is unpacked from the temporary cache, where it
# has been put. The tree has a part for each controller (0, 1, ...) and a common one (C); what an archive
# lacks of them is made.
#
# Nobody but root gets into the tree. What is written into it must not lead out of it: only folders and plain
# files with one name are unpacked, and no programs that run with their owner's or group's rights. An archive
# that holds anything else is refused, and one that holds more than /etc/kesta/archives.conf allows.
set -eu
umask 077
unset TAR_OPTIONS BZIP BZIP2
export LC_ALL=C

tree=/var/run/kesta_sys/env_restore2
limits=/etc/kesta/archives.conf

fail()
{
    echo "env_tarz_assign_distribute.sh: $*" >&2
    exit 1
}

# limit NAME DEFAULT
limit()
{
    value=$2
    if [ -f "$limits" ]; then
        found=$(sed -n "s/^[[:space:]]*$1[[:space:]]*=[[:space:]]*\([0-9]*\)[[:space:]]*\$/\1/p" "$limits" | tail -n 1)
        value=${found:-$value}
    fi
    echo "$value"
}

[ $# -eq 1 ] || fail "usage: env_tarz_assign_distribute.sh DIRECTORY"
case "${1%/}" in
    /var/run/kesta_sys/tmp) archive=/tmp/kesta_sys/tmp/backup.tar.Z ;;
    *) archive=${1%/}/backup.tar.Z ;;
esac
[ -f "$archive" ] || fail "there is no $archive"

work=$tree.new
rm -rf "$work"
mkdir -p "${tree%/*}"
mkdir "$work"
trap 'rm -rf "$work"' EXIT

# Unpacked once: what is looked at is what is taken from it.
packed=$(wc -c < "$archive")
most=$(limit archive_bytes 4294967296)
by_ratio=$((packed * $(limit archive_ratio 1000)))
[ "$by_ratio" -ge 67108864 ] || by_ratio=67108864
[ "$most" -le "$by_ratio" ] || most=$by_ratio
{ /usr/bin/bunzip2 -c < "$archive" || : > "$work/damaged"; } 2> /dev/null |
    head -c $((most + 1)) > "$work/archive.tar" || fail "there is no room to unpack $archive"
[ "$(wc -c < "$work/archive.tar")" -le "$most" ] || fail "$archive holds more than $most bytes: see $limits"
[ ! -e "$work/damaged" ] || fail "$archive is damaged"

{ /usr/sbin/tar --quoting-style=escape --numeric-owner -tvf "$work/archive.tar" || : > "$work/damaged"; } \
        2> /dev/null | awk -v bytes="$most" -v members="$(limit archive_members 100000)" '
    function refuse(why) { print why; exit 1 }
    { name = $0; for (i = 0; i < 5; i++) sub(/^[^ ]+ +/, "", name) }
    /^[^-d]/ { refuse("holds " name ", which is neither a folder nor a plain file with one name") }
    /^-..[sS]/ || /^-.....s/ { refuse("holds " name ", which runs with the rights of its owner or group") }
    { size += $3 }
    size > bytes { refuse("holds files of more than " bytes " bytes") }
    NR > members { refuse("holds more than " members " members") }' > "$work/refused" ||
    fail "$archive $(cat "$work/refused")"
[ ! -e "$work/damaged" ] || fail "$archive is damaged"

mkdir "$work/tree"
/usr/sbin/tar -C "$work/tree" -xpf "$work/archive.tar" || fail "can't unpack $archive"
chmod 0700 "$work/tree"
for controller in 0 1; do
    mkdir -p "$work/tree/$controller/boot/solaris" "$work/tree/$controller/etc"
done
mkdir -p "$work/tree/C/etc/inet"

rm -rf "$tree"
mv "$work/tree" "$tree"
