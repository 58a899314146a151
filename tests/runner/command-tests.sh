#!/usr/bin/env bash
# What the commands of ./dev do with folders and arguments, in a copy of the scripts with fake programs.
#   command-tests.sh XML
# The results go to XML, as GoogleTest writes them.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
XML=$1
# shellcheck source=tests/support/shell-tests.sh
. "$HERE/../support/shell-tests.sh" DevCommand

# shellcheck source=tests/runner/fakes.sh
. "$HERE/fakes.sh"

make_thesis() {
    rm -rf "$WORK/thesis"
    mkdir -p "$WORK/thesis"
    echo text >"$WORK/thesis/thesis.tex"
    touch "$WORK/thesis/lock"
}

# refuses TEXT VARIABLE=VALUE... -- ARGS...: the command fails, and says the text.
refuses() {
    dev "${@:2}"
    [ "$STATUS" -ne 0 ] || because "the status is 0: $(<"$SAID")" || return
    says "$1"
}

AFolderWithOtherContentsIsNotCleaned() {
    make_thesis
    refuses "was not made by ./dev" FC_BUILD="$WORK/thesis" -- clean || return
    [ -s "$WORK/thesis/thesis.tex" ] || because "the file is gone"
}

# With what makes other folders ours: the cache of a build folder, as `cmake .` leaves it in the clone, and the marker.
TheCloneItselfIsNotCleaned() {
    local CLONE=$WORK/src/out folder # FC_OUT can name the folder around it
    mkdir -p "$CLONE"
    cp -r "$WORK/a clöne"/{dev,scripts} "$CLONE"
    echo "CMAKE_HOME_DIRECTORY:INTERNAL=$CLONE" >"$CLONE/CMakeCache.txt"
    ln -sfn src/out "$WORK/link"
    for folder in "$CLONE" "$WORK/src" "$WORK/link"; do
        refuses "was not made by ./dev" FC_BUILD="$folder" -- clean || return
        refuses "FC_BUILD to a new or empty folder" FC_BUILD="$folder" -- run || return
        refuses "FC_CACHE to a new or empty folder" FC_CACHE="$folder" -- run || return
        refuses "was not made by ./dev" FC_BUILD="$WORK/nosuch" FC_OUT="$WORK/src" -- clean || return
        refuses "FC_OUT to a new or empty folder" FC_OUT="$WORK/src" -- run || return
        touch "$CLONE/.made-by-dev" "$WORK/src/.made-by-dev"
    done
    [ -x "$CLONE/dev" ] || because "the clone is gone" || return
    rm -rf "$WORK/src" "$WORK/link"
}

AFolderWithOtherContentsIsNotUsed() {
    local command
    make_thesis
    for command in run test bench coverage mutate check package shell host; do
        refuses "FC_BUILD to a new or empty folder" FC_BUILD="$WORK/thesis" -- "$command" || return
        refuses "FC_CACHE to a new or empty folder" FC_BUILD="$WORK/new" FC_CACHE="$WORK/thesis" -- "$command" || return
    done
    [ "$(ls -A "$WORK/thesis")" = $'lock\nthesis.tex' ] || because "the folder holds $(ls -A "$WORK/thesis")"
}

AFolderMadeForABuildIsCleaned() {
    rm -rf "$WORK/build"
    mkdir -p "$WORK/build/logs" "$CLONE/out" "$CLONE/dist"
    touch "$WORK/build/.made-by-dev"
    dev FC_BUILD="$WORK/build" -- clean
    succeeds || return
    ls -d "$WORK/build" "$CLONE/out" "$CLONE/dist" >"$WORK/left" 2>/dev/null || true
    [ ! -s "$WORK/left" ] || because "left: $(cat "$WORK/left")"
}

TheUsualFolderIsCleaned() {
    mkdir -p "$CLONE/build/logs"
    dev FC_BUILD= -- clean
    succeeds || return
    [ ! -e "$CLONE/build" ] || because "it is left"
}

AskingForHelpDoesNothingElse() {
    local command
    mkdir -p "$CLONE/build"
    for command in run test bench coverage mutate check package shell host clean; do
        dev FC_BUILD= -- "$command" --help
        succeeds && says "  $command " || return
    done
    [ "$(find "$CLONE/build")" = "$CLONE/build" ] || because "the build folder has changed"
}

TheHostAnswersForItsOwnOptionsOnceItIsBuilt() {
    fresh
    dev -- host --help && succeeds && called_not 'ninja|fc-host' || return # without a prefix
    dev -- run
    succeeds || return
    echo >"$FAKE_STATE/calls"
    dev -- host --help && succeeds && says '  host ARGS' && called '^fc-host.exe --help$' && called_not 'ninja'
}

AnUnknownArgumentIsRefused() {
    local command
    mkdir -p "$CLONE/build"
    for command in run test bench coverage mutate check package shell clean; do
        refuses "has no option '--al'" FC_BUILD= -- "$command" --al || return
        [[ $command == @(test|bench|coverage) ]] || refuses "takes no argument 'c'" FC_BUILD= -- "$command" c c || return
    done
    refuses "takes no argument 'second'" FC_BUILD= -- run first second || return
    refuses "has no option '--al'" FC_BUILD= -- bench --short --al || return
    refuses "there is no command 'nosuch'" FC_BUILD= -- nosuch || return
    [ "$(find "$CLONE/build")" = "$CLONE/build" ] || because "the build folder has changed"
}

AFolderOfAnotherUserIsNamed() {
    local variable
    for variable in FC_BUILD FC_CACHE FC_OUT; do
        fresh
        mkdir -p "$WORK/theirs/out"
        touch "$WORK/theirs/.made-by-dev" "$WORK/theirs/out/.made-by-dev"
        chmod -R a-w "$WORK/theirs"
        as_another_user "$WORK/theirs"
        dev "$variable=$WORK/theirs" -- run
        as_before
        chmod -R u+w "$WORK/theirs"
        rm -rf "$WORK/theirs"
        fails_with "set $variable to another folder" || return
        [ "$(wc -l <"$SAID")" -le 1 ] || because "it says more: $(<"$SAID")" || return
    done
}

# as_another_user FOLDER: runs as a user who may not write to it. Root may write anywhere: then `nobody` runs ./dev, and
# may perhaps not even enter the folder where these tests run.
as_another_user() {
    [ "$(id -u)" -eq 0 ] || return 0
    chmod a+rx "${FC_TEMPORARY:-$WORK}"
    chmod -R a+rwX "$WORK"
    chmod -R a-w "$1"
    RUN_AS=(setpriv --reuid=65534 --regid=65534 --clear-groups env -C "$WORK" "FC_TEMPORARY=$WORK")
}
as_before() { RUN_AS=(); }

AReadOnlyCloneIsEnough() {
    fresh
    mkdir -p "$WORK/mine"
    chmod -R a-w "$CLONE"
    as_another_user "$CLONE"
    dev -- run
    fails_with "set FC_OUT to" && dev FC_OUT="$WORK/mine" -- run && succeeds
    local status=$?
    as_before
    chmod -R u+w "$WORK"
    rm -rf "$WORK/mine"
    return $status
}

OutAndDistCanBeElsewhere() {
    fresh
    dev FC_OUT="$WORK/out" -- run
    succeeds && called "fc-host.exe .*--out $WORK/out/out" && says "The report is $WORK/out/out/report.html" || return
    [ ! -e "$CLONE/out" ] || because "there is an out/ in the clone, too"
}

PathsOfResultsAreRelativeToTheCaller() {
    fresh
    (cd "$CLONE" && dev -- run && succeeds) || because "it fails: $(<"$SAID")" || return
    says 'The report is out/report.html, the events are out/events.json' && called 'fc-host.exe .* examples/story.lua --out out$' || return
    (cd "$WORK" && dev -- run && succeeds) || because "it fails: $(<"$SAID")" || return
    says 'The report is a clöne/out/report.html' || return
    mkdir -p "$WORK/elsewhere"
    (cd "$WORK/elsewhere" && dev -- run the.log && succeeds) || because "it fails: $(<"$SAID")" || return
    called "fc-host.exe .*$CLONE/examples/connections.lua --out $CLONE/out the.log"
}

AnOutFolderWithOtherContentsIsNotUsed() {
    fresh
    mkdir -p "$WORK/work/out" "$WORK/work/dist"
    echo text | tee "$WORK/work/out/thesis.tex" >"$WORK/work/dist/thesis.tex"
    refuses "set FC_OUT to a new or empty folder" FC_OUT="$WORK/work" -- run || return
    refuses "set FC_OUT to a new or empty folder" FC_OUT="$WORK/work" -- package || return
    refuses "was not made by ./dev" FC_OUT="$WORK/work" -- clean || return
    [ -s "$WORK/work/out/thesis.tex" ] || because "the file is gone" || return
    [ -d "$BUILD" ] || because "the build folder is gone"
}

ABenchmarkWithoutItsFileIsRefusedBeforeTheBuild() {
    fresh
    refuses "--json needs the name of a file" -- bench --json || return
    refuses "--json needs the name of a file" -- bench --short --json || return
    refuses "can't be written" -- bench --json nosuch/rows.json || return
    refuses "can't be written" -- bench --json "$WORK" metrics || return
    called_not ninja
}

ChangesOfNothingAreRefused() {
    fresh
    refuses "--seed needs a number" -- mutate --seed || return
    refuses "--count needs a number" -- mutate WindowsFirewall --count many || return
    called_not ninja || return
    mkdir -p "$CLONE/plugins/filter/common"
    refuses "there is no folder 'nosuch' below plugins/filter" -- mutate nosuch || return
    refuses "plugins/filter/common has no sources" -- mutate common
}

AQuietHostIsQuietAboutItsBuilding() {
    fresh
    dev -- host --fast 10 --quiet x.lua
    succeeds && called 'ninja' && called 'fc-host.exe --fast 10 --quiet x.lua' || return
    [ ! -s "$SAID" ] || because "it says: $(<"$SAID")" || return
    dev -- shell --quiet
    succeeds && called 'fc-host.exe -i --quiet$' || return
    [ ! -s "$SAID" ] || because "it says: $(<"$SAID")" || return
    dev -- host x.lua
    says 'building' || return
    touch "$FAKE_STATE/ninja.fails"
    dev -- host --quiet x.lua
    fails_with 'the build failed with status'
}

for name in AFolderWithOtherContentsIsNotCleaned TheCloneItselfIsNotCleaned \
    AFolderWithOtherContentsIsNotUsed AFolderMadeForABuildIsCleaned TheUsualFolderIsCleaned \
    AskingForHelpDoesNothingElse TheHostAnswersForItsOwnOptionsOnceItIsBuilt AnUnknownArgumentIsRefused AFolderOfAnotherUserIsNamed AReadOnlyCloneIsEnough OutAndDistCanBeElsewhere \
    PathsOfResultsAreRelativeToTheCaller AnOutFolderWithOtherContentsIsNotUsed ABenchmarkWithoutItsFileIsRefusedBeforeTheBuild \
    ChangesOfNothingAreRefused AQuietHostIsQuietAboutItsBuilding; do
    test_case "$name"
done
write_results command-tests "$XML"
