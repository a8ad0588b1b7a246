#!/bin/sh
# An appliance moves from the embedded platform to a cluster and back: whole, or not at all.
#   tests/hosts/copy_platform.sh SOURCE BUILD
set -eu

source=$1
build=$2
work=$(mktemp -d /dev/shm/kesta-copy-XXXXXX)
lab="$work/lab"
clean_up()
{
    "$source/scripts/etcd-cluster" down "$work/cluster" > /dev/null 2>&1 || true
    [ ! -e "$lab/lab.conf" ] || "$build/bin/kesta-lab" destroy "$lab"
    rm -rf "$work"
}
trap clean_up EXIT

fail()
{
    echo "FAILED: $1"
    exit 1
}
on() { "$build/bin/kesta-lab" --dir "$lab" exec CNT0 --bind "$build" -- "$@"; }
# What runs over the cluster, with its settings in the environment.
over_cluster() { on env "LD_LIBRARY_PATH=$build/lib/etcd" "$@"; }
copy()
{
    result=0
    on "$build/bin/kesta-platform" copy "$@" > "$work/told" 2>&1 || result=$?
    cat "$work/told"
}
expect()
{
    [ "$result" = "$1" ] || fail "exit code $result, not $1"
    grep -q "$2" "$work/told" || fail "it does not say '$2'"
}

"$source/scripts/etcd-cluster" up "$work/cluster" > /dev/null
KESTA_PLATFORM_NV_ENDPOINTS=$(cat "$work/cluster/endpoints")
export KESTA_PLATFORM_NV_ENDPOINTS
"$build/bin/kesta-lab" create "$lab" > /dev/null

echo "-- nothing to copy, and nowhere to copy to"
copy --from embedded --to etcd
expect 1 "embedded holds nothing"
copy --from embedded --to nowhere
expect 2 "no platform nowhere"
copy --from embedded --to embedded
expect 2 "same platform"

on kestactl slot switch --backup kesta_backup0 --accept kesta_backup1 > /dev/null
on sh -c 'mkdir -p /etc/kesta_sys/app && head -c 300000 /dev/urandom > /etc/app.data &&
          cat > /etc/kesta_sys/app/define.xml' << 'END'
<?xml version="1.0" encoding="UTF-8"?>
<group id="app" operation="update" type="files"><setinfo><file path="/etc/app.data"/></setinfo></group>
END
on kestactl save app > /dev/null
on kestactl accept > /dev/null
on kestactl --json verify > "$work/embedded.json"

echo "-- a lock that is held"
identifier=$(on kestactl lock take)
copy --from embedded --to etcd
expect 3 "is held on embedded"
on kestactl lock release "$identifier" > /dev/null

echo "-- there"
copy --from embedded --to etcd
expect 0 "read back and compared"
over_cluster "$build/bin/kestactl" verify > "$work/verified" || fail "verify over the cluster: $(cat "$work/verified")"
[ "$(over_cluster "$build/bin/kestactl" slot show)" = "$(on kestactl slot show)" ] || fail "other slots"
[ "$(over_cluster "$build/bin/kestactl" version show)" = "$(on kestactl version show)" ] || fail "other versions"
copy --from embedded --to etcd
expect 0 "holds all of it already"

echo "-- something else is there"
over_cluster "$build/bin/kestactl" nv write group other > /dev/null
copy --from embedded --to etcd
expect 1 "give --replace"

echo "-- and back"
copy --from etcd --to embedded --replace
expect 0 "read back and compared"
[ "$(on kestactl nv read group)" = other ] || fail "the change did not come back"
on kestactl verify > "$work/verified" || fail "verify: $(cat "$work/verified")"

echo "-- somebody changes the source meanwhile: what the target held is there again"
on kestactl nv write group third > /dev/null
# It waits at its first write until the source has changed; what puts things back then waits no more.
mkfifo "$lab/cnt0/tmp/gate"
echo "nv_write 1 once block /tmp/gate" > "$lab/cnt0/tmp/faults"
(
    exec 3> "$lab/cnt0/tmp/gate"
    "$source/scripts/etcd-cluster" ctl "$work/cluster" put /kesta/nv/0 changed > /dev/null
    rm "$lab/cnt0/tmp/faults"
) &
KESTA_PLATFORM_FAULT_FILE=/tmp/faults copy --from etcd --to embedded --replace
wait
expect 4 "etcd was changed meanwhile"
expect 4 "What embedded held before is there again"
[ "$(on kestactl nv read group)" = third ] || fail "the embedded platform was changed"

echo "-- the target fails, and goes on failing: that is told"
echo "nv_write 1 on fail 5" > "$lab/cnt0/tmp/faults"
over_cluster "$build/bin/kestactl" nv write group fourth > /dev/null
result=0
on env KESTA_PLATFORM_FAULT_FILE=/tmp/faults "$build/bin/kesta-platform" copy --from etcd --to embedded --replace \
    > "$work/told" 2>&1 || result=$?
cat "$work/told"
expect 4 "embedded"
rm "$lab/cnt0/tmp/faults"
[ "$(on kestactl nv read group)" = third ] || fail "the embedded platform was changed"

echo "-- nobody answers"
"$source/scripts/etcd-cluster" kill "$work/cluster" 0
"$source/scripts/etcd-cluster" kill "$work/cluster" 1
copy --from embedded --to etcd --replace
expect 4 "NV memory can't be read"
[ "$(on kestactl nv read group)" = third ] || fail "the embedded platform was changed"
echo "passed"
