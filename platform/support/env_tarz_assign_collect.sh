#!/bin/sh
# env_tarz_assign_collect.sh FLAG: packs the staging tree into a saved environment again.
#
# FLAG 0: into this controller's flash folder. 1: into the merge cache, for the system backup area. The
# archive takes the place of the old one when it is whole and on the disk. The files of its group are in it as
# they were; those that the identity is part of, and that env_tarz_assign_distribute.sh found to be this controller's,
# have the new one. The parts of the tree come last; of the other controller's, what was not in the archive is left out:
# that controller adds its own.
set -eu
umask 077
unset TAR_OPTIONS BZIP BZIP2
export LC_ALL=C

tree=/var/run/kesta_sys/env_restore2

# Names of an archive stand in it: echo would make bytes of what is escaped in them, and a terminal would act on those.
fail()
{
    printf '%s\n' "env_tarz_assign_collect.sh: $*" | tr -c '[:print:]\n' '?' >&2
    exit 1
}

# follow FILE: gives the group's own file the identity that the parts have. Its owner and mode stay.
follow()
{
    case $1 in
        etc/nodename) cat "$tree/$own/$1" > "$tree/.group/$1" ;;
        boot/solaris/bootenv.rc)
            cp "$tree/.group/$1" "$tree/.edited" || return 1
            for name in cp_wwn cp_serial_number; do
                value=$(/usr/sbin/eeprom -f "$tree/$own/$1" "$name") || return 1
                /usr/sbin/eeprom -f "$tree/.edited" "$value" || return 1
            done
            cat "$tree/.edited" > "$tree/.group/$1"
            ;;
        *) cat "$tree/C/$1" > "$tree/.group/$1" ;;
    esac
}

[ $# -eq 1 ] || fail "usage: env_tarz_assign_collect.sh 0|1"
case "$1" in
    0) archive=/opt/kesta_sys/bakup/backup.tar.Z ;;
    1) archive=/var/run/kesta_sys/tmp/backup.tar.Z ;;
    *) fail "$1: the flag is 0 or 1" ;;
esac
[ -f "$tree/.rest.tar" ] || fail "there is no $tree: open it first"

own=$(/usr/sbin/cpinfo -i)
trap 'rm -f "$archive.tar" "$archive.new"' EXIT
cp "$tree/.rest.tar" "$archive.tar" || fail "there is no room to pack $tree"
if [ -s "$tree/.follow" ]; then
    while read -r file; do
        follow "$file" || fail "can't change the group's /$file"
    done < "$tree/.follow"
    /usr/sbin/tar --no-recursion --delete -f "$archive.tar" -T "$tree/.follow" ||
        fail "can't take the group's files out"
    /usr/sbin/tar -C "$tree/.group" --no-recursion -rf "$archive.tar" -T "$tree/.follow" ||
        fail "can't pack the group's files"
fi
# A hosts table that no controller has had is none.
cp "$tree/.lacks" "$tree/.left_out"
[ -s "$tree/C/etc/inet/hosts" ] || echo C/etc/inet/hosts >> "$tree/.left_out"
# The names without a leading "./".
(cd "$tree" && /usr/sbin/tar --sort=name --anchored --no-wildcards -X .left_out -rf "$archive.tar" -- 0 1 C) ||
    fail "can't pack $tree"
bzip2 -c < "$archive.tar" > "$archive.new" || fail "can't compress the archive"
/usr/bin/bunzip2 -tq < "$archive.new" || fail "the new archive is damaged"
chmod 0644 "$archive.new"
sync "$archive.new"
mv "$archive.new" "$archive"
sync "${archive%/*}"
