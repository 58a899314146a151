#!/usr/bin/env bash
# What scripts/try-on does around the root that it makes; debootstrap and chroot are fakes.
#   try-on-tests.sh XML
# The results go to XML, as GoogleTest writes them.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
XML=$1
# shellcheck source=tests/support/shell-tests.sh
. "$HERE/../support/shell-tests.sh" TryOn

CLONE="$WORK/a clone"
mkdir -p "$CLONE" "$WORK/bin"
cp -r "$HERE/../../scripts" "$CLONE"
git -C "$CLONE" init -q
git -C "$CLONE" add -A
git -C "$CLONE" -c user.name=x -c user.email=x@example.com commit -q -m x

export HANGS=7531.$$ # seconds, to recognise the hanging command by

# The root contains only what try-on checks.
cat >"$WORK/bin/debootstrap" <<'FAKE'
#!/usr/bin/env bash
[ "$2" != nosuch ] || { echo "E: No such script: nosuch"; exit 1; }
mkdir -p "$3"/{proc,dev,root,etc/apt/apt.conf.d}
echo 99 >"$3/etc/debian_version"
FAKE
# ./dev ARGS is called with what follows `try`: one command fails, one never ends, and during one the clone gets a new
# commit.
cat >"$WORK/bin/chroot" <<'FAKE'
#!/usr/bin/env bash
case $* in
*' try fail') echo '3 passed, 1 failed, 0 skipped'; exit 4 ;;
*' try slow') git -c user.name=x -c user.email=x@example.com commit -q --allow-empty -m later ;;
*' try hang') sleep "$HANGS" & wait ;;
*' try '*) echo '5 passed, 0 failed, 0 skipped' ;;
esac
FAKE
printf '#!/bin/sh\necho installed\n' >"$WORK/bin/dpkg-query"
chmod +x "$WORK"/bin/*

BUILD="$CLONE/build"

# try ARGS...: runs the copy of try-on, with $WORK/root as its root. Leaves its output in `said`, its status in STATUS.
try() {
    STATUS=0
    env -u FC_CACHE -u FC_JOBS FC_BUILD="$BUILD" HOME="$WORK/home" FC_MIRROR=copy:/nosuch FC_TRY="$WORK/root" \
        PATH="$WORK/bin:$PATH" "$CLONE/scripts/try-on" "$@" >"$WORK/said" 2>&1 </dev/null || STATUS=$?
}

ends_with() { [ "$STATUS" -eq "$1" ] || because "the status is $STATUS: $(cat "$WORK/said")"; }

says() { grep -qE -- "$1" "$WORK/said" || because "'$1' is not in: $(cat "$WORK/said")"; }

leaves_nothing() {
    [ ! -e "$WORK/root" ] || because "the root is left" || return
    ! grep -qF "$WORK/root" /proc/mounts || because "mounts are left: $(grep -F "$WORK/root" /proc/mounts)" || return
    ! pgrep -f "sleep $HANGS" >/dev/null || because "a process is left"
}

BothCommandsAreTriedAndReported() {
    try trixie
    ends_with 0 && says '^[0-9a-f]+ on Debian 99, ' && says '^a bare trixie +[0-9]+ s   done$' &&
        says '^\./dev run +[0-9]+ s   done: 5 passed, 0 failed, 0 skipped$' && says '^\./dev test .* done: 5 passed' &&
        leaves_nothing
}

AFailedCommandIsReportedAndTheNextOneIsTried() {
    try trixie fail 'test fc-tests'
    ends_with 1 && says '^\./dev fail .* FAILED, status 4: 3 passed, 1 failed, 0 skipped$' &&
        says '^\./dev test fc-tests .* done: 5 passed' && leaves_nothing
}

TheReportedCommitIsTheOneThatWasTried() {
    local tried
    tried=$(git -C "$CLONE" log -1 --format=%h)
    try trixie slow
    ends_with 0 && says "^$tried on Debian 99, " || return
    [ "$(git -C "$CLONE" log -1 --format=%s)" = later ] || because "there is no later one"
}

AnUnknownReleaseIsReported() {
    try nosuch
    ends_with 1 && says 'E: No such script: nosuch' && says '^a bare nosuch .* FAILED, status 1$' || return
    ! grep -q '/dev run' "$WORK/said" || because "it goes on: $(cat "$WORK/said")" || return
    leaves_nothing
}

ARootCanBeKept() {
    try --keep trixie run
    ends_with 0 && says "the root stays in $WORK/root" || return
    [ "$(cat "$WORK/root/etc/debian_version")" = 99 ] || because "it is not there" || return
    try trixie
    ends_with 1 && says "$WORK/root is not empty: set FC_TRY to a new folder" || return
    [ -e "$WORK/root/etc" ] || because "it is gone" || return
    rm -rf --one-file-system "$WORK/root"
}

AnInterruptionLeavesNothing() {
    local pid status=0
    env -u FC_BUILD -u FC_CACHE HOME="$WORK/home" FC_MIRROR=copy:/nosuch FC_TRY="$WORK/root" PATH="$WORK/bin:$PATH" \
        "$CLONE/scripts/try-on" trixie hang >"$WORK/said" 2>&1 </dev/null &
    pid=$!
    for _ in {1..300}; do
        ! pgrep -f "sleep $HANGS" >/dev/null || break
        sleep 0.1
    done
    kill -TERM "$pid"
    wait "$pid" || status=$?
    [ "$status" -eq 143 ] || because "the status is $status: $(cat "$WORK/said")" || return
    sleep 0.5
    leaves_nothing
}

TheFolderOfItsLogsIsOneThatDevTakes() {
    local BUILD="$WORK/a build"
    try trixie run
    ends_with 0 || return
    [ -s "$BUILD/try-on/trixie/run.log" ] || because "the log is not there" || return
    FC_BUILD=$BUILD bash -euc 'CALLER=$PWD; for script in common folders; do . "$1/scripts/$script.sh"; done
        claim_folder "$BUILD" FC_BUILD' claim "$CLONE" >"$WORK/said" 2>&1 || because "$(cat "$WORK/said")"
}

AFolderWithOtherContentsIsNotUsedForLogs() {
    local BUILD="$WORK/thesis"
    mkdir -p "$BUILD"
    echo text >"$BUILD/thesis.tex"
    try trixie run
    ends_with 1 && says 'set FC_BUILD to a new or empty folder' || return
    [ "$(ls "$BUILD")" = thesis.tex ] || because "there are: $(ls "$BUILD")" || return
    leaves_nothing
}

MissingNamespacesAreReported() {
    try trixie
    ends_with 1 && says 'error: (making a root of Debian needs root|no namespaces can be made here)' && leaves_nothing
}

NamesAndOptionsAreChecked() {
    try
    ends_with 1 && says 'name a Debian release' || return
    try --all trixie
    ends_with 1 && says "has no option '--all'" || return
    try --help
    ends_with 0 && says '^try-on \[--keep\] RELEASE'
}

names=(NamesAndOptionsAreChecked)
# The namespaces need root, and more than root may do in most containers.
if unshare --mount --pid --fork true 2>/dev/null; then
    names+=(BothCommandsAreTriedAndReported AFailedCommandIsReportedAndTheNextOneIsTried TheReportedCommitIsTheOneThatWasTried
        AnUnknownReleaseIsReported ARootCanBeKept AnInterruptionLeavesNothing TheFolderOfItsLogsIsOneThatDevTakes
        AFolderWithOtherContentsIsNotUsedForLogs)
else
    names+=(MissingNamespacesAreReported)
fi
for name in "${names[@]}"; do
    test_case "$name"
done
write_results try-on-tests "$XML"
