#!/bin/sh
# Four controllers on four hosts, and a cluster of three members on three more: an environment is saved on CNT0 while the
# member that leads is killed, and comes back on CNT3, byte for byte.
#   scripts/demo_hosts.sh BUILD_FOLDER      KEEP=1 keeps the appliance for a look around
set -eu

build=$(cd "${1:-build/release}" && pwd)
scripts=$(cd "$(dirname "$0")" && pwd)
PATH="$build/bin:$PATH"
work=$(mktemp -d "${TMPDIR:-/var/tmp}/kesta-demo-XXXXXX")
lab="$work/appliance"
group=network

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
    printf '%s$ %s\n' "$1" "$(echo "$@" | cut -d' ' -f2-)"
    on "$@"
}

# Checksum, mode, owner and size of each file of an environment, as a controller sees them.
fingerprint()
{
    on "$1" sh -c 'cd /opt/demo && find . -type f | sort | xargs sha256sum &&
                   find . -type f | sort | xargs stat -c "%a %u:%g %s %n"'
}

title "Four controllers and three members, each on a host of its own"
kesta-lab create --hosts "$lab"
kesta-lab --dir "$lab" status
for controller in CNT0 CNT3; do
    on "$controller" mkdir -p "/etc/kesta_sys/$group" /opt/demo
    on "$controller" sh -c 'cat > "$1"' - "/etc/kesta_sys/$group/define.xml" << 'END'
<?xml version="1.0" encoding="UTF-8"?>
<group id="network" operation="update" type="files">
  <setinfo>
    <file path="/opt/demo/hosts"/>
    <file path="/opt/demo/passwd"/>
    <file path="/opt/demo/data"/>
  </setinfo>
</group>
END
done

title "CNT0 saves its environment; the member that leads is killed in the middle"
on CNT0 sh -c 'cp /etc/hosts /etc/passwd /opt/demo && head -c 20000000 /dev/urandom > /opt/demo/data'
fingerprint CNT0 > "$work/first.sum"
operator CNT0 kestactl slot switch --backup kesta_backup0 --accept kesta_backup1
mkfifo "$work/told"
printf 'CNT0$ kestactl save %s\n' "$group"
on CNT0 kestactl --json save "$group" > "$work/saved" 2> "$work/told" &
save=$!
killed=
while read -r line; do
    case $line in
    *'"begin"'*'store it in slot'*) killed=$(kesta-lab --dir "$lab" member leader kill) ;;
    esac
    printf '%s\n' "$line" >> "$work/progress"
done < "$work/told"
result=0
wait "$save" || result=$?
[ -n "$killed" ] || { cat "$work/progress"; echo "the leader was not killed in the middle"; exit 1; }
echo "$killed, with the archive on its way; the save ended with exit code $result"
if [ "$result" -ne 0 ]; then
    sed -n 's/^ *"text": //p' "$work/saved"
    operator CNT0 kestactl save "$group"
fi
kesta-lab --dir "$lab" status | sed -n '/^member/,$p'
saved=$(on CNT0 sha256sum /opt/kesta_sys/bakup/backup.tar.Z | cut -d' ' -f1)

title "CNT3 has nothing of it, and restores it"
on CNT3 find /opt/demo -type f
operator CNT3 kestactl restore "$group" --from backup
fingerprint CNT3 > "$work/second.sum"

title "The four storage places on four controllers"
for controller in CNT0 CNT1 CNT2 CNT3; do
    on "$controller" kestactl --json status --archives > "$work/$controller.json"
done
python3 "$scripts/storage_table.py" "$work"/CNT?.json

if diff "$work/first.sum" "$work/second.sum" > "$work/diff"; then
    printf '\n%s\nidentical\n' "$saved"
else
    cat "$work/diff"
    printf '\nDIFFERENT\n'
    exit 1
fi
