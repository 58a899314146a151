# shellcheck shell=bash
# What every script of ./dev shares: where things are, how it speaks, how it asks for root.

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# A name that the caller gave, seen from the caller's folder.
from_caller() {
    case $1 in
    /*) echo "$1" ;;
    *) echo "$CALLER/$1" ;;
    esac
}

CACHE=$(from_caller "${FC_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/fc-devkit}")
BUILD=$(from_caller "${FC_BUILD:-$ROOT/build}")
OUT=$ROOT/out
LOGS=$BUILD/logs
TOOLCHAIN=$ROOT/cmake/clang-mingw64.cmake
JOBS=${FC_JOBS:-$(nproc)}
# Wine makes names of files from the locale's characters; a machine without a locale would have ASCII alone.
[ "$(locale charmap 2>/dev/null)" = UTF-8 ] || export LC_ALL=C.UTF-8
export WINEPREFIX=$BUILD/wine WINEDEBUG=${WINEDEBUG:--all} WINEARCH=win64
# Folders of the machine's own compiler, which clang would search for Windows, too.
unset CPATH C_INCLUDE_PATH CPLUS_INCLUDE_PATH LIBRARY_PATH
# No menu entries, no browser or .NET offers: the prefix is for tests only.
export WINEDLLOVERRIDES="winemenubuilder.exe=d;mscoree=d;mshtml=d"

say() { printf '\033[1m==>\033[0m %s\n' "$*" >&2; }
die() {
    printf '\033[1;31merror:\033[0m %s\n' "$*" >&2
    exit 1
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        die "this step needs root: install sudo, or run as root: $*"
    fi
}

# quietly LOG LABEL COMMAND...: runs with its output in a log, shows elapsed time, and on failure the log's end.
quietly() {
    local log=$LOGS/$1 label=$2 started=$SECONDS status=0 pid
    shift 2
    mkdir -p "$(dirname "$log")"
    "$@" >"$log" 2>&1 </dev/null 9>&- &
    pid=$!
    # A job in the background does not hear of Ctrl-C by itself.
    trap 'kill "$pid" 2>/dev/null; die "interrupted: $label"' INT TERM
    while kill -0 "$pid" 2>/dev/null; do
        [ ! -t 2 ] || printf '\r==> %s ... %ds ' "$label" $((SECONDS - started)) >&2
        sleep 0.2
    done
    wait "$pid" || status=$?
    trap - INT TERM
    [ ! -t 2 ] || printf '\r' >&2
    say "$label ($((SECONDS - started)) s)"
    if [ "$status" -ne 0 ]; then
        tail -n 40 "$log" >&2
        die "$label failed with status $status; the whole output is in $log"
    fi
}
