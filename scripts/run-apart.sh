#!/usr/bin/env bash
# run-apart.sh ENTRY COMMAND...: runs the test program of a ctest entry. It must leave ENTRY.xml in the current folder,
# that of the results, which decides whether it passed; its output goes to ENTRY.log and its status to ENTRY.status.
# The output is shown once the program has ended: Wine's services keep open the output of the program that they were
# started for, so a reader would wait for them.
set -uo pipefail
# shellcheck source-path=SCRIPTDIR
. "$(dirname "${BASH_SOURCE[0]}")/results.sh"
entry=$1
shift
exec 7>&- 8>&- 9>&- # Wine's services would keep the locks of ./dev
rm -f "$entry".{xml,log,status}
# Not as TMPDIR, which contains the socket of Debian's Wine server: each test would start its own server.
FC_TEMPORARY=$(mktemp -d -t fc-test.XXXXXX) || exit 1
export FC_TEMPORARY
echo "$FC_TEMPORARY" >"$entry.temporary" # so that ./dev test can remove it if this script is killed
in_lane=()
if [[ ${CTEST_RESOURCE_GROUP_0_LANE:-} =~ ^id:([0-9]+), ]]; then # see scripts/lanes.sh
    export WINEPREFIX=$WINEPREFIX-${BASH_REMATCH[1]}
    in_lane=(taskset -c "${BASH_REMATCH[1]}")
fi
timeout --kill-after=10 "$TEST_SECONDS" "${in_lane[@]}" "$@" >"$entry.log" 2>&1
echo $? >"$entry.status"
rm -rf "$FC_TEMPORARY" "$entry.temporary"
cat "$entry.log"
fault=$(fault_of "$PWD/$entry")
[ -z "$fault" ] || {
    echo "error: $entry $fault"
    exit 1
}
