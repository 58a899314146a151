# shellcheck shell=bash
# What the scripts of ./dev share: folders, messages, waiting, and root privileges.

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# A name that the caller gave, relative to the caller's folder.
from_caller() {
    case $1 in
    /*) echo "$1" ;;
    *) echo "$CALLER/$1" ;;
    esac
}

# A path for messages: relative if it lies below the caller's folder.
to_caller() { realpath -ms --relative-base="$CALLER" "$1"; }

export HOME=${HOME:-~}
CACHE=$(from_caller "${FC_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/fc-devkit}")
BUILD=$(from_caller "${FC_BUILD:-$ROOT/build}")
OUT=$(from_caller "${FC_OUT:-$ROOT}")/out
# shellcheck disable=SC2034 # for package.sh
DIST=$(from_caller "${FC_OUT:-$ROOT}")/dist
LOGS=$BUILD/logs
TOOLCHAIN=$ROOT/cmake/clang-mingw64.cmake
JOBS=${FC_JOBS:-$(nproc)}
# Wine takes file names in the locale's characters; a machine without a locale would have only ASCII.
[ "$(locale charmap 2>/dev/null)" = UTF-8 ] || export LC_ALL=C.UTF-8
# Folders of the machine's own compiler, which clang would search for Windows, too, and name in PDB files.
unset CPATH C_INCLUDE_PATH CPLUS_INCLUDE_PATH LIBRARY_PATH

BOLD='' RED='' PLAIN=''
[ ! -t 2 ] || BOLD=$'\033[1m' RED=$'\033[1;31m' PLAIN=$'\033[0m'
PROGRESS_SECONDS=${FC_PROGRESS_SECONDS:-30}

QUIET='' # not empty: only errors are told
say() { [ -n "$QUIET" ] || printf '%s==>%s %s\n' "$BOLD" "$PLAIN" "$*" >&2; }
complain() { printf '%serror:%s %s\n' "$RED" "$PLAIN" "$*" >&2; }
die() {
    complain "$*"
    exit 1
}

# tell_full_disks STATUS: call it after a failure. A full disk stops whatever is running, with that program's own
# message.
tell_full_disks() {
    local folder left
    [ "$1" -gt 0 ] && [ "$1" -lt 128 ] || return 0
    for folder in "$BUILD" "$CACHE" "$OUT" "${TMPDIR:-/tmp}"; do
        left=$(df --output=avail -BM "$folder" 2>/dev/null | tail -n 1 | tr -dc 0-9) || continue
        [ "${left:-1000}" -ge 50 ] ||
            complain "only $left MiB are left on the disk that holds $folder: free some space there, and run this again"
    done
}

# require_root TEXT: otherwise prints the text, which says what an administrator can do.
require_root() {
    [ "$(id -u)" -eq 0 ] && return
    { command -v sudo >/dev/null && sudo -v; } || die "$1" # asks for the password here, not in a log
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        # Only root can end it. So it ends when this process is gone.
        # shellcheck disable=SC2016 # expanded by root's shell
        sudo bash -c '"${@:2}" & while kill -0 $! 2>/dev/null; do [ -d "/proc/$1" ] || kill $!; sleep 0.2; done; wait $!' \
            as_root $$ "$@"
    fi
}

# wait_telling PID LABEL [live]: waits for a background job and returns its status. Says now and then that it is still
# running, or counts its seconds.
wait_telling() {
    local pid=$1 label=$2 live=${3:-} started=$SECONDS told=$SECONDS
    while kill -0 "$pid" 2>/dev/null; do
        sleep 0.2
        if [ -n "$live" ]; then
            printf '\r==> %s ... %ds ' "$label" $((SECONDS - started)) >&2
        elif [ $((SECONDS - told)) -ge "$PROGRESS_SECONDS" ]; then
            say "$label: still running after $((SECONDS - started)) s"
            told=$SECONDS
        fi
    done
    [ -z "$live" ] || printf '\r' >&2
    wait "$pid"
}

# quietly LOG LABEL COMMAND...: runs the command with its output in a log, and shows the log's end on failure.
quietly() {
    local log=$LOGS/$1 label=$2 started=$SECONDS status=0 live=''
    shift 2
    mkdir -p "$(dirname "$log")"
    [ ! -t 2 ] || [ -n "$QUIET" ] || live=live
    "$@" >"$log" 2>&1 </dev/null &
    wait_telling $! "$label" "$live" || status=$?
    say "$label ($((SECONDS - started)) s)"
    if [ "$status" -ne 0 ]; then
        tail -n 40 "$log" >&2
        die "$label failed with status $status; the full output is in $log"
    fi
}
