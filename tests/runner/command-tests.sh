#!/usr/bin/env bash
# What the commands of ./dev do with folders and arguments, in a copy of the scripts.
#   command-tests.sh XML
# The results go to XML, as GoogleTest writes them.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
XML=$1
# shellcheck disable=SC2034 # for shell-tests.sh
SUITE=DevCommand
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
# shellcheck source=tests/support/shell-tests.sh
. "$HERE/../support/shell-tests.sh"

CLONE="$WORK/a clone"
mkdir -p "$CLONE"
cp -r "$HERE/../../dev" "$HERE/../../scripts" "$CLONE"

# dev VARIABLE=VALUE... -- ARGS...: runs the copy, with its own home. Its words are in `said`.
dev() {
    local settings=()
    while [ "$1" != -- ]; do
        settings+=("$1")
        shift
    done
    shift
    env -u FC_BUILD -u FC_CACHE HOME="$WORK/home" XDG_CACHE_HOME="$WORK/home/cache" "${settings[@]}" \
        timeout 60 "$CLONE/dev" "$@" >"$WORK/said" 2>&1 </dev/null
}

make_thesis() {
    rm -rf "$WORK/thesis"
    mkdir -p "$WORK/thesis"
    echo text >"$WORK/thesis/thesis.tex"
    touch "$WORK/thesis/lock"
}

# refuses TEXT VARIABLE=VALUE... -- ARGS...: the command fails, and says the text.
refuses() {
    local text=$1
    shift
    ! dev "$@" || because "the status is 0: $(cat "$WORK/said")" || return
    grep -qF "$text" "$WORK/said" || because "it says: $(cat "$WORK/said")"
}

AFolderThatHoldsSomethingElseIsNotCleaned() {
    make_thesis
    refuses "was not made by ./dev" FC_BUILD="$WORK/thesis" -- clean || return
    [ -s "$WORK/thesis/thesis.tex" ] || because "the file is gone"
}

TheCloneItselfIsNotCleaned() {
    refuses "was not made by ./dev" FC_BUILD="$CLONE" -- clean || return
    [ -x "$CLONE/dev" ] || because "the clone is gone"
}

AFolderThatHoldsSomethingElseIsNotFilled() {
    local command
    make_thesis
    for command in run test bench check package shell host; do
        refuses "FC_BUILD name a new or an empty folder" FC_BUILD="$WORK/thesis" -- "$command" || return
        refuses "FC_CACHE name a new or an empty folder" FC_BUILD="$WORK/new" FC_CACHE="$WORK/thesis" -- "$command" || return
    done
    [ "$(ls -A "$WORK/thesis")" = $'lock\nthesis.tex' ] || because "the folder holds $(ls -A "$WORK/thesis")"
}

AFolderThatWasMadeForABuildIsCleaned() {
    rm -rf "$WORK/build"
    mkdir -p "$WORK/build/logs" "$CLONE/out" "$CLONE/dist"
    touch "$WORK/build/.made-by-dev"
    dev FC_BUILD="$WORK/build" -- clean || because "$(cat "$WORK/said")" || return
    ls -d "$WORK/build" "$CLONE/out" "$CLONE/dist" >"$WORK/left" 2>/dev/null || true
    [ ! -s "$WORK/left" ] || because "left: $(cat "$WORK/left")"
}

TheUsualFolderIsCleaned() {
    mkdir -p "$CLONE/build/logs"
    dev -- clean || because "$(cat "$WORK/said")" || return
    [ ! -e "$CLONE/build" ] || because "it is left"
}

AskingForHelpDoesNothingElse() {
    local command
    mkdir -p "$CLONE/build"
    for command in run test bench check package shell clean; do
        dev -- "$command" --help || because "$command: $(cat "$WORK/said")" || return
        grep -q "^  $command " "$WORK/said" || because "$command says: $(cat "$WORK/said")" || return
    done
    [ "$(find "$CLONE/build")" = "$CLONE/build" ] || because "the build folder has changed"
}

AnUnknownArgumentIsRefused() {
    local command
    mkdir -p "$CLONE/build"
    for command in run check package clean; do
        refuses "has no option '--al'" -- "$command" --al || return
        refuses "takes no argument 'c'" -- "$command" c c || return
    done
    refuses "takes no argument 'second'" -- run first second || return
    refuses "there is no command 'nosuch'" -- nosuch || return
    [ -d "$CLONE/build" ] || because "the build folder is gone"
}

for name in AFolderThatHoldsSomethingElseIsNotCleaned TheCloneItselfIsNotCleaned \
    AFolderThatHoldsSomethingElseIsNotFilled AFolderThatWasMadeForABuildIsCleaned TheUsualFolderIsCleaned \
    AskingForHelpDoesNothingElse AnUnknownArgumentIsRefused; do
    test_case "$name"
done
write_results command-tests "$XML"
