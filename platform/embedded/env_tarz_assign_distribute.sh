#!/bin/sh
# env_tarz_assign_distribute.sh DIRECTORY: opens a saved environment for a change of identity.
#
# Unpacks backup.tar.Z of the folder into the staging tree, which is replaced. The merge cache stands for
# what was fetched from the system backup area: its archive is unpacked from the temporary cache, where it
# has been put. The tree has a part for each controller (0, 1, ...) and a common one (C); what an archive
# lacks of them is made.
set -eu

tree=/var/run/kesta_sys/env_restore2

fail()
{
    echo "env_tarz_assign_distribute.sh: $*" >&2
    exit 1
}

[ $# -eq 1 ] || fail "usage: env_tarz_assign_distribute.sh DIRECTORY"
case "${1%/}" in
    /var/run/kesta_sys/tmp) archive=/tmp/kesta_sys/tmp/backup.tar.Z ;;
    *) archive=${1%/}/backup.tar.Z ;;
esac
[ -f "$archive" ] || fail "there is no $archive"
/usr/bin/bunzip2 -tq < "$archive" || fail "$archive is damaged"

rm -rf "$tree.new"
mkdir -p "$tree.new"
trap 'rm -rf "$tree.new"' EXIT
/usr/bin/bunzip2 -c < "$archive" | /usr/sbin/tar -C "$tree.new" -xpf - || fail "can't unpack $archive"
for controller in 0 1; do
    mkdir -p "$tree.new/$controller/boot/solaris" "$tree.new/$controller/etc"
done
mkdir -p "$tree.new/C/etc/inet"

rm -rf "$tree"
mv "$tree.new" "$tree"
