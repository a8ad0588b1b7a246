#!/bin/sh
# Runs the shell blocks of the pages on a controller of a lab; each command has to succeed. And every kestactl
# command that a page names, with its options, is there.
# usage: examples.sh SOURCE BIN_FOLDER
set -eu
source=$1
bin=$2
export PATH="$bin:$PATH"
work=$(mktemp -d)
lab=$work/lab
trap 'kesta-lab destroy "$lab" > /dev/null 2>&1 || true; rm -rf "$work"' EXIT

kesta-lab create "$lab" > /dev/null
for n in 0 1; do
    mkdir -p "$lab/cnt$n/etc/kesta_sys" "$lab/cnt$n/etc/network"
    cp -r "$source/share/example" "$lab/cnt$n/etc/kesta_sys/network"
    echo "auto lo" > "$lab/cnt$n/etc/network/interfaces"
    rm -f "$lab/cnt$n/etc/resolv.conf"  # a link that leads elsewhere on some machines
    echo "nameserver 10.0.0.53" > "$lab/cnt$n/etc/resolv.conf"
done
mkdir -p "$lab/cnt0/opt/here"
cp "$source/share/example/define.xml" "$lab/cnt0/opt/here"
printf '#!/bin/sh\nexit 0\n' > "$lab/cnt0/opt/here/nightly-backup"
chmod +x "$lab/cnt0/opt/here/nightly-backup"
on() { kesta-lab --dir "$lab" exec "$@"; }
on CNT0 -- kestactl slot switch --backup kesta_backup0 --accept kesta_backup1 > /dev/null
on CNT0 -- kestactl save network > /dev/null
on CNT0 -- kestactl accept > /dev/null

for page in definitions operators locks versions; do
    awk '/^```sh/ { inside = 1; next } /^```/ { inside = 0 } inside' "$source/docs/$page.md" |
        sed 's,/usr/local/sbin/nightly-backup,/opt/here/nightly-backup,' > "$lab/cnt0/opt/here/block.sh"
    # 1 is an answer: the versions differ.
    on CNT0 -- /bin/sh -c 'cd /opt/here; while read -r line; do
        echo "+ $line"; eval "$line"; code=$?; [ $code -le 1 ] || exit $code; done < block.sh' \
        > "$work/log" 2>&1 < /dev/null || {
        echo "docs/$page.md:" >&2
        cat "$work/log" >&2
        exit 1
    }
done

# The lab's own page, on the machine.
awk '/^```sh/ { inside = 1; next } /^```/ { inside = 0 } inside' "$source/docs/lab.md" |
    sed "s,/var/tmp/appliance,$work/appliance,g; s,^kesta-lab shell CNT1.*,echo exit | kesta-lab shell CNT1," \
        > "$work/block.sh"
sh -eux "$work/block.sh" > "$work/log" 2>&1 || {
    echo "docs/lab.md:" >&2
    cat "$work/log" >&2
    exit 1
}

"$source/tests/docs/commands_exist.py" "$bin/kestactl" "$source"/README.md "$source"/docs/*.md
