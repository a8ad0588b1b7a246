#!/bin/sh
# env_tarz_assign_distribute.sh DIRECTORY: opens a saved environment for a change of identity.
#
# Unpacks the parts of backup.tar.Z of the folder into the staging tree, which is replaced: one for each controller
# (0 and 1) and a common one (C). The merge cache stands for what was fetched from the system backup area: its archive is
# taken from the temporary cache, where it has been put. The rest of the archive, which is the files of its group,
# stays packed in the tree's .rest.tar as it is.
#
# What an archive lacks of its parts is made from the running system, since the tool that saves groups makes none: host
# name and boot environment of this controller, hosts table and GUID. What the other controller has of its own is not
# known here; .lacks names it, so that no half of it is packed. Where the group itself has these files, and they are
# this controller's, .follow names them: they get the new identity too.
#
# Nobody but root gets into the tree. What is written into it must not lead out of it: of the parts only folders and
# plain files with one name are unpacked. Links of the rest are left packed. An archive that holds devices, names with
# "..", or programs that run with their owner's or group's rights is refused, and one that holds more than
# /etc/kesta/archives.conf allows.
set -eu
umask 077
unset TAR_OPTIONS BZIP BZIP2
export LC_ALL=C

tree=/var/run/kesta_sys/env_restore2
limits=/etc/kesta/archives.conf

# Names of an archive stand in it: echo would make bytes of what is escaped in them, and a terminal would act on those.
fail()
{
    printf '%s\n' "env_tarz_assign_distribute.sh: $*" | tr -c '[:print:]\n' '?' >&2
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

# lend FILE PART: what the part lacks, from the running system.
lend()
{
    if [ ! -e "$work/tree/$2/$1" ] && [ -f "/$1" ]; then
        cp "/$1" "$work/tree/$2/$1"
    fi
}

# same_identity FILE: the group's own file is this controller's, or what both have.
same_identity()
{
    case $1 in
        boot/solaris/bootenv.rc) [ "$(/usr/sbin/eeprom -f "$work/group/$1" cp_wwn)" = "$(/usr/sbin/eeprom cp_wwn)" ] ;;
        *) cmp -s "$work/group/$1" "/$1" ;;
    esac
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

# Each member in one line; names are escaped. Those of the parts go to the list.
{ /usr/sbin/tar --quoting-style=escape --numeric-owner -tvf "$work/archive.tar" || : > "$work/damaged"; } \
        2> /dev/null | awk -v bytes="$most" -v members="$(limit archive_members 100000)" -v parts="$work/parts" '
    function refuse(why) { print why; exit 1 }
    { name = $0; for (i = 0; i < 5; i++) sub(/^[^ ]+ +/, "", name); part = name; sub(/^(\.?\/)+/, "", part) }
    /^[^-dlh]/ { refuse("holds " name ", which is no file, folder or link") }
    /^-..[sS]/ || /^-.....s/ { refuse("holds " name ", which runs with the rights of its owner or group") }
    !/^[lh]/ && name ~ /(^|\/)\.\.(\/|$)/ { refuse("holds " name ", a name that leads out of it") }
    part ~ /^[01C](\/|$| (->|link to) )/ {
        if (/^[lh]/) refuse("holds " name ", which is neither a folder nor a plain file with one name")
        if (name ~ /\\/) refuse("holds " name ", a name that no part has")
        print name > parts
    }
    { size += $3 }
    size > bytes { refuse("holds files of more than " bytes " bytes") }
    NR > members { refuse("holds more than " members " members") }' > "$work/refused" ||
    fail "$archive $(cat "$work/refused")"
[ ! -e "$work/damaged" ] || fail "$archive is damaged"

mkdir "$work/tree" "$work/group"
if [ -s "$work/parts" ]; then
    /usr/sbin/tar -C "$work/tree" --no-recursion --verbatim-files-from -xpf "$work/archive.tar" -T "$work/parts" ||
        fail "can't unpack $archive"
    sort -u "$work/parts" > "$work/part_names"
    /usr/sbin/tar --no-recursion --verbatim-files-from --delete -f "$work/archive.tar" -T "$work/part_names" ||
        fail "can't take the parts out of $archive"
fi
chmod 0700 "$work/tree"
for controller in 0 1; do
    mkdir -p "$work/tree/$controller/boot/solaris" "$work/tree/$controller/etc"
done
mkdir -p "$work/tree/C/etc/inet"

own=$(/usr/sbin/cpinfo -i)
: > "$work/tree/.lacks"
: > "$work/tree/.follow"
for controller in 0 1; do
    for file in etc/nodename boot/solaris/bootenv.rc; do
        if [ "$controller" = "$own" ]; then
            lend "$file" "$controller"
        elif [ ! -e "$work/tree/$controller/$file" ]; then
            echo "$controller/$file" >> "$work/tree/.lacks"
        fi
    done
done
case $own in
    0 | 1) [ -e "$work/tree/$own/etc/nodename" ] || uname -n > "$work/tree/$own/etc/nodename" ;;
esac
lend etc/inet/hosts C
[ -e "$work/tree/C/etc/inet/hosts" ] || : > "$work/tree/C/etc/inet/hosts"
lend etc/cp_guid C

# The group's files of the same names; only plain ones, by their own names.
for file in etc/nodename boot/solaris/bootenv.rc etc/inet/hosts etc/cp_guid; do
    if /usr/sbin/tar -C "$work/group" --no-recursion --no-wildcards -xpf "$work/archive.tar" "$file" 2> /dev/null &&
        [ -f "$work/group/$file" ] && [ ! -L "$work/group/$file" ] && same_identity "$file"; then
        echo "$file" >> "$work/tree/.follow"
    fi
done

mv "$work/archive.tar" "$work/tree/.rest.tar"
mv "$work/group" "$work/tree/.group"
rm -rf "$tree"
mv "$work/tree" "$tree"
