#!/bin/sh
# A storm of locks: four controllers with several processes each take and release the inner lock and
# the command lock. Nothing may be held twice, no slot may stay behind, no count may be lost.
#   scripts/stress.sh BUILD_FOLDER --cycles N | --seconds N [PROCESSES]
set -eu

build=$(cd "$1" && pwd)
how=$2
much=$3
processes=${4:-3}
PATH="$build/bin:$PATH"
work=$(mktemp -d "${TMPDIR:-/var/tmp}/kesta-stress-XXXXXX")
lab="$work/lab"

clean_up()
{
    [ ! -e "$lab/lab.conf" ] || kesta-lab destroy "$lab"
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

kesta-lab create "$lab" > /dev/null
cp "$build/bin/lock_storm" "$lab/product/bin/"
shared=/opt/kesta_platform/shared
started=""
for controller in CNT0 CNT1 CNT2 CNT3; do
    number=0
    while [ "$number" -lt "$processes" ]; do
        kesta-lab --dir "$lab" exec "$controller" -- lock_storm "$shared" "$how" "$much" \
            > "$work/$controller.$number" &
        started="$started $!"
        number=$((number + 1))
    done
done
failed=0
for process in $started; do
    wait "$process" || failed=$((failed + 1))
done

totals=$(cat "$work"/CNT* | awk '{ for (i = 1; i <= 6; ++i) sum[i] += $i }
    END { print sum[1] + 0, sum[2] + 0, sum[3] + 0, sum[4] + 0, sum[5] + 0, sum[6] + 0 }')
# shellcheck disable=SC2086
set -- $totals
echo "inner-lock sections $1, entered twice $2; command locks held $3, refused $4, held twice $5;" \
    "failures $6"
counted=$(kesta-lab --dir "$lab" exec CNT0 -- kestactl --json nv read old-backup-name |
    python3 -c 'import json, struct, sys
print(struct.unpack("<ii", bytes.fromhex(json.load(sys.stdin)["result"]["bytes"])[:8])[1])')
echo "counted in NV memory: $counted"
kesta-lab --dir "$lab" exec CNT0 -- kestactl lock check
[ "$failed" -eq 0 ] && [ "$1" -gt 0 ] && [ "$3" -gt 0 ] && [ "$counted" -eq "$1" ]
