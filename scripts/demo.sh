#!/bin/sh
# The main job on real input: saves an environment on an appliance of four controllers, switches the
# slots, and brings it back on other controllers, byte for byte.
#   scripts/demo.sh BUILD_FOLDER      KEEP=1 keeps the appliance for a look around
set -eu

build=$(cd "${1:-build/release}" && pwd)
scripts=$(cd "$(dirname "$0")" && pwd)
PATH="$build/bin:$PATH"
work=$(mktemp -d "${TMPDIR:-/var/tmp}/kesta-demo-XXXXXX")
lab="$work/appliance"
controllers="CNT0 CNT1 CNT2 CNT3"
group=network
flash=/opt/kesta_sys/bakup
differences=0

clean_up()
{
    if [ "${KEEP:-}" ]; then
        echo "Kept: kesta-lab --dir $lab shell CNT0; kesta-lab destroy $lab"
        return
    fi
    [ ! -e "$lab/lab.conf" ] || kesta-lab destroy "$lab"
    rm -rf "$work"
}
trap clean_up EXIT
exec 3>&1
trap 'exit 130' INT
trap 'exit 143' TERM HUP

title() { printf '\n== %s\n' "$*"; }

# Runs a command on a controller.
on()
{
    controller=$1
    shift
    kesta-lab --dir "$lab" exec "$controller" -- "$@"
}

# The same for an operator's command, which is shown.
operator()
{
    printf '%s$ %s\n' "$1" "$(echo "$@" | cut -d' ' -f2-)" >&3
    on "$@"
}

# Checksum, mode, owner and size of each file of an environment, as a controller sees them.
fingerprint()
{
    on "$1" sh -c 'cd / && xargs sha256sum < "$1" && xargs stat -c "%a %u:%g %s %n" < "$1"' - \
        "/etc/kesta_sys/$group/files"
}

compare()
{
    if diff "$2" "$3" > "$work/diff"; then
        echo "$1: identical"
    else
        echo "$1: DIFFERENT"
        cat "$work/diff"
        differences=$((differences + 1))
    fi
}

install_group()
{
    on "$1" mkdir -p "/etc/kesta_sys/$group"
    on "$1" sh -c 'cat > "$1"' - "/etc/kesta_sys/$group/files" < "$work/files"
    on "$1" sh -c 'cat > "$1"' - "/etc/kesta_sys/$group/env_restore1_udbk_scr.sh" << 'END'
# Unpacks what the switch has put on flash into the running system.
/usr/bin/bunzip2 -c /opt/kesta_sys/bakup/backup.tar.Z | /usr/sbin/tar -C / -xpf -
END
    on "$1" sh -c 'cat > "$1"' - "/etc/kesta_sys/$group/env_copy_scr.sh" << 'END'
# Keeps a second copy of the saved environment.
mkdir -p /opt/network && cp -p /opt/kesta_sys/bakup/backup.tar.Z /opt/network/
END
}

# Packs the environment of a controller onto its flash.
save()
{
    echo "$1: pack $(wc -l < "$work/files") files into $flash/$2"
    on "$1" sh -c 'tar -C / -I "bzip2 -1" -cf "$1" -T "$2"' - "$flash/$2" \
        "/etc/kesta_sys/$group/files"
    on "$1" stat -c "      %s bytes" "$flash/$2"
}

# What a restore has to mend.
spoil()
{
    echo "$1: spoil the environment: every file emptied, one removed"
    on "$1" sh -c 'cd / && for file in $(cat "$1"); do mkdir -p "$(dirname "$file")"; : > "$file"; done
                   rm etc/hosts' - "/etc/kesta_sys/$group/files"
}

checksum_of() { on "$1" sha256sum "$2" | cut -d' ' -f1; }

set_boot_mode() { sed -i "s/^boot_mode = .*/boot_mode = $2/" "$lab/$1/etc/kesta/platform.conf"; }

title "An appliance of four controllers"
kesta-lab create "$lab"
(cd / && find etc -maxdepth 1 -type f -readable -size +0 ! -name '*[! -~]*' ! -name '* *' \
    ! -name '*shadow*' ! -name hostname ! -name ld.so.cache ! -name .pwd.lock | sort) > "$work/files"
count=$(wc -l < "$work/files")
[ "$count" -ge 20 ] || { echo "this machine has only $count configuration files"; exit 1; }
for controller in $controllers; do install_group "$controller"; done

title "CNT0 saves its environment: $count configuration files of this machine"
fingerprint CNT0 > "$work/first.sum"
save CNT0 backup.tar.Z
operator CNT0 kestactl slot switch --backup kesta_backup0 --accept kesta_backup1
operator CNT0 kestactl copy cntbackup2backup
first=$(checksum_of CNT0 $flash/backup.tar.Z)

title "The slots change places; CNT0 saves a newer, larger environment into the other one"
operator CNT0 kestactl slot switch
echo opt/appliance/data >> "$work/files"
for controller in $controllers; do install_group "$controller"; done
on CNT0 sh -c 'echo "192.168.100.10 cnt0" >> /etc/hosts; mkdir -p /opt/appliance
               head -c 105000000 /dev/urandom > /opt/appliance/data'
fingerprint CNT0 > "$work/second.sum"
save CNT0 backup.tar.Z
operator CNT0 kestactl copy cntbackup2backup
second=$(checksum_of CNT0 $flash/backup.tar.Z)
on CNT0 cp -p $flash/backup.tar.Z $flash/accept.tar.Z

title "CNT2 restores the newer environment"
spoil CNT2
operator CNT2 kestactl restore $group --from backup --script update --skip-flashcopy
fingerprint CNT2 > "$work/CNT2.sum"
compare "environment on CNT2 and on CNT0" "$work/second.sum" "$work/CNT2.sum"

title "The slots change back; CNT1 restores the older environment"
operator CNT1 kestactl slot switch
grep -v opt/appliance/data "$work/files" > "$work/files.first"
mv "$work/files.first" "$work/files"
for controller in CNT1 CNT3; do install_group "$controller"; done
spoil CNT1
operator CNT1 kestactl restore $group --from backup --script update --skip-flashcopy
fingerprint CNT1 > "$work/CNT1.sum"
compare "environment on CNT1 and on CNT0 before" "$work/first.sum" "$work/CNT1.sum"

title "CNT3 boots for initial configuration: its empty flash is filled from the system backup area"
set_boot_mode cnt3 initconf
operator CNT3 kestactl copy backup2copy $group
echo "$first" > "$work/first.archive"
checksum_of CNT3 $flash/backup.tar.Z > "$work/CNT3.flash"
checksum_of CNT3 /opt/network/backup.tar.Z > "$work/CNT3.copy"
compare "archive on CNT3's flash" "$work/first.archive" "$work/CNT3.flash"
compare "the group's own copy" "$work/first.archive" "$work/CNT3.copy"
on CNT3 sh -c 'cd /tmp/kesta_sys/tmp && xargs sha256sum < "$1" && xargs stat -c "%a %u:%g %s %n" < "$1"' \
    - "/etc/kesta_sys/$group/files" > "$work/CNT3.sum"
compare "files unpacked in CNT3's tmp cache" "$work/first.sum" "$work/CNT3.sum"
set_boot_mode cnt3 normal

title "The system backup area is taken away: NV memory still tells which slots are in force"
on CNT1 kestactl slot show > "$work/slots.before"
mv "$lab/shared/sysback" "$work/sysback"
operator CNT1 kestactl slot show | tee "$work/slots.without"
compare "slots in force, read from NV memory" "$work/slots.before" "$work/slots.without"
if operator CNT1 kestactl copy backup2tmp $group; then
    echo "a copy from a missing area must not succeed"
    differences=$((differences + 1))
else
    echo "      (exit code $?: refused, as it must be)"
fi
mv "$work/sysback" "$lab/shared/sysback"
operator CNT1 kestactl copy backup2tmp $group
echo "$second" > "$work/second.archive"
operator CNT2 kestactl copy backup2tmp $group --accept
checksum_of CNT2 /tmp/kesta_sys/tmp/backup.tar.Z > "$work/CNT2.cache"
compare "archive in CNT2's tmp cache" "$work/second.archive" "$work/CNT2.cache"

title "The four storage places on four controllers"
for controller in $controllers; do
    on "$controller" kestactl --json status --archives > "$work/$controller.json"
done
python3 "$scripts/storage_table.py" "$work"/CNT?.json

if [ "$differences" -ne 0 ]; then
    printf '\n%s comparisons failed\n' "$differences"
    exit 1
fi
printf '\nidentical\n'
