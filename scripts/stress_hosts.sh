#!/bin/sh
# The storm of locks over hosts, for a minute or more: meanwhile the member that leads is killed, then another one hangs, a
# controller's cable is pulled, and the quorum is lost and comes back. Nothing may be held twice; what could not be had is
# told, and how long nothing was had at the most. Beside it each controller writes and reads registers that all share: what
# each of them saw is judged afterwards.
#   scripts/stress_hosts.sh BUILD_FOLDER [SECONDS] [PROCESSES]
set -eu

build=$(cd "$1" && pwd)
seconds=${2:-60}
processes=${3:-2}
PATH="$build/bin:$PATH"
work=$(mktemp -d "${TMPDIR:-/dev/shm}/kesta-storm-XXXXXX")
lab="$work/lab"

clean_up()
{
    [ ! -e "$lab/lab.conf" ] || kesta-lab destroy "$lab"
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

in_lab() { kesta-lab --dir "$lab" "$@"; }
pass() { sleep "$(awk "BEGIN { print $seconds * $1 }")"; }
say() { printf '%s  %s\n' "$(date +%T)" "$*"; }

kesta-lab create --hosts "$lab"
cp "$build/bin/lock_storm" "$build/bin/register_storm" "$lab/product/bin/"
started=""
for controller in CNT0 CNT1 CNT2 CNT3; do
    number=0
    while [ "$number" -lt "$processes" ]; do
        in_lab exec "$controller" -- lock_storm /opt/kesta_platform/shared --seconds "$seconds" \
            > "$work/$controller.$number" &
        started="$started $!"
        number=$((number + 1))
    done
    in_lab exec "$controller" -- register_storm "$((${controller#CNT} + 1))" "$seconds" > "$work/registers.$controller" &
    started="$started $!"
done

pass 0.1
say "$(in_lab member leader kill)"
pass 0.15
in_lab power-on
say "$(in_lab member leader stop) (the leader)"
pass 0.1
in_lab power-on
in_lab link CNT2 down
say "CNT2's cable is pulled"
pass 0.1
in_lab link CNT2 up
pass 0.1
say "$(in_lab member 0 kill), $(in_lab member 1 kill): no quorum"
pass 0.1
in_lab power-on
say "the quorum is back"

for process in $started; do
    wait "$process" || true  # it says what failed
done
judged=0
"$build/bin/register_storm" --judge "$work"/registers.CNT? || judged=1
# A read of what was there long before has to be found out.
awk '$1 == 0 && $2 == "w" && !first { first = $3 } { line[NR] = $0 } $1 == 0 && $2 == "r" && !$6 { last = NR }
    END { for (i = 1; i <= NR; ++i) { if (i == last) { split(line[i], f); sub(" " f[3] " ", " " first " ", line[i]) } print line[i] } }' \
    "$work/registers.CNT0" > "$work/planted.CNT0"
! "$build/bin/register_storm" --judge "$work"/planted.CNT0 "$work"/registers.CNT[1-3] > /dev/null || judged=1
cat "$work"/CNT*.? | awk -v judged="$judged" '{ for (i = 1; i <= 6; ++i) sum[i] += $i; if ($7 > gap) gap = $7 }
    END {
        print "inner-lock sections " sum[1] + 0 ", entered twice " sum[2] + 0 "; command locks held " sum[3] + 0 \
            ", refused " sum[4] + 0 ", held twice " sum[5] + 0 "; failures told " sum[6] + 0 \
            "; longest gap of one process " gap / 1000 " s"
        exit judged > 0 || sum[2] + sum[5] > 0 || sum[1] == 0 || sum[3] == 0
    }'
