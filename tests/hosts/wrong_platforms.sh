#!/bin/sh
# kesta-platform-check finds out platforms that are wrong in front of the etcd platform too, at the same clauses. The
# members of the cluster are in memory: the check makes thousands of calls.
#   tests/hosts/wrong_platforms.sh BUILD_FOLDER [WAY...]      without a way: all of them
set -eu

build=$(cd "$1" && pwd)
shift
work=$(mktemp -d)
trap 'exec 3>&-; rm -rf "$work"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

mkfifo "$work/end"
"$build/bin/members_on_demand" < "$work/end" > "$work/endpoints" &
exec 3> "$work/end"  # they end with it, however this ends
while [ ! -s "$work/endpoints" ]; do
    kill -0 $!
done
KESTA_TEST_PLATFORM=etcd
KESTA_PLATFORM_NV_ENDPOINTS=$(cat "$work/endpoints")
KESTA_TEST_WRONG_PLATFORMS="$*"
export KESTA_TEST_PLATFORM KESTA_PLATFORM_NV_ENDPOINTS KESTA_TEST_WRONG_PLATFORMS
"$build/bin/lab_test" --gtest_filter="PlatformCheck.Finds*Wrong*"
