#!/usr/bin/env bash
# run-windows.sh WINE PROGRAM ARGS...: runs a program of ours under Wine, by way of fc-launch.exe beside it, and ends with
# its status. Wine's own is 0 for some of the programs that crash.
set -uo pipefail
wine=$1 program=$2
shift 2
exec 7>&- 8>&- 9>&- # Wine's services would keep the locks of ./dev

fault() {
    echo "error: $(basename "$program") $1" >&2
    exit "${2:-1}"
}

# As Wine names it, whatever drive the current folder is on.
windows_path() {
    local path=$1
    [[ $path != /* ]] || path=Z:$path
    echo "${path//\//\\}"
}

report=$(mktemp -p "${FC_TEMPORARY:-}")
trap 'rm -f "$report"' EXIT
# Once in some thousand times Wine ends before it has run anything. Such a start does not count as a run of the program.
run() {
    "$wine" "$(dirname "$program")/fc-launch.exe" "$(windows_path "$report")" "$(windows_path "$program")" "$@"
}
run "$@"
[ -s "$report" ] || {
    echo "warning: Wine ended before $(basename "$program") began; starting it again" >&2
    run "$@"
}
status=$(<"$report")
case $status in
'') fault "could not be run: Wine or fc-launch.exe failed" ;;
begun) fault "left no status: Wine failed while it ran" ;;
killed) fault "was ended from outside" ;;
*[!0-9]*) fault "left the status '$status'" ;;
esac
[ "$status" -gt 255 ] || exit "$status"
low=$((status & 255))
[ "$low" -ne 0 ] || low=1
case $(printf '0x%08X' "$status") in
0x[8C]*) fault "crashed: $(printf '0x%08X' "$status")" "$low" ;; # the code of an exception
*) exit "$low" ;;
esac
