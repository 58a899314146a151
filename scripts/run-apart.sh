#!/usr/bin/env bash
# run-apart.sh ENTRY COMMAND...: runs the test program of an entry of ctest's. In the current folder, that of the results, it
# has to leave ENTRY.xml, by which it is judged; its output stays beside that in ENTRY.log and its status in
# ENTRY.status. The output is shown once the program has ended: Wine's services keep the output of the program that
# they were started for, and so whoever reads it would wait for them.
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
timeout --kill-after=10 "$TEST_SECONDS" "$@" >"$entry.log" 2>&1
echo $? >"$entry.status"
rm -rf "$FC_TEMPORARY" "$entry.temporary"
cat "$entry.log"
fault=$(fault_of "$PWD/$entry")
[ -z "$fault" ] || {
    echo "error: $entry $fault"
    exit 1
}
