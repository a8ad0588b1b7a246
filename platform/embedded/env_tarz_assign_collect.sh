#!/bin/sh
# env_tarz_assign_collect.sh FLAG: packs the staging tree into a saved environment again.
#
# FLAG 0: into this controller's flash folder. 1: into the merge cache, for the system backup area. The
# archive takes the place of the old one when it is whole and on the disk.
set -eu
umask 077
unset TAR_OPTIONS BZIP BZIP2

tree=/var/run/kesta_sys/env_restore2

fail()
{
    echo "env_tarz_assign_collect.sh: $*" >&2
    exit 1
}

[ $# -eq 1 ] || fail "usage: env_tarz_assign_collect.sh 0|1"
case "$1" in
    0) archive=/opt/kesta_sys/bakup/backup.tar.Z ;;
    1) archive=/var/run/kesta_sys/tmp/backup.tar.Z ;;
    *) fail "$1: the flag is 0 or 1" ;;
esac
[ -d "$tree" ] || fail "there is no $tree: open it first"

trap 'rm -f "$archive.tar" "$archive.new"' EXIT
# The names without a leading "./"; nothing but the parts of the tree begins the archive.
(cd "$tree" && /usr/sbin/tar --sort=name -cf "$archive.tar" -- *) || fail "can't pack $tree"
bzip2 -c < "$archive.tar" > "$archive.new" || fail "can't compress the archive"
/usr/bin/bunzip2 -tq < "$archive.new" || fail "the new archive is damaged"
chmod 0644 "$archive.new"
sync "$archive.new"
mv "$archive.new" "$archive"
sync "${archive%/*}"
