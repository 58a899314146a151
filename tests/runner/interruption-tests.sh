#!/usr/bin/env bash
# What ./dev leaves when it is interrupted, and what two of them at once do, in a copy of the scripts with fake programs.
#   interruption-tests.sh XML
# The results go to XML, as GoogleTest writes them.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
XML=$1
# shellcheck source=tests/support/shell-tests.sh
. "$HERE/../support/shell-tests.sh" Interruption
# shellcheck source=tests/runner/fakes.sh
. "$HERE/fakes.sh"

# starts_and_hangs PROGRAM ARGS...: ./dev runs as process DEV, and waits for the fake program.
starts_and_hangs() {
    touch "$FAKE_STATE/$1.hangs"
    start -- "${@:2}"
    eventually test -e "$FAKE_STATE/$1.is-hanging"
}

# goes_on PROGRAM: it no longer hangs.
goes_on() { rm "$FAKE_STATE/$1.hangs"; }

all_have_ended() {
    local pid
    while read -r pid; do
        has_ended "$pid" || because "process $pid lives on: $(tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null)" || return
    done <"$FAKE_STATE/pids"
}

# is_ended_by SIGNAL STATUS: ends ./dev, which must leave nothing behind.
is_ended_by() {
    kill -s "$1" "$DEV"
    ends_with "$2" && all_have_ended && says interrupted && says_not 'error:|failed' || return
    flock -n "$BUILD/lock" true || because "the lock is held"
}

ASignalEndsWhatRunsInTheBackground() {
    local signal_and_status
    for signal_and_status in 'TERM 143' 'INT 130' 'HUP 129'; do
        fresh
        # shellcheck disable=SC2086 # two words
        starts_and_hangs cmake package && is_ended_by $signal_and_status || return
    done
}

ASignalEndsTheBuild() {
    fresh
    starts_and_hangs ninja package && is_ended_by TERM 143
}

ASignalEndsTheTests() {
    fresh
    starts_and_hangs ctest test && is_ended_by TERM 143 || return
    fresh
    starts_and_hangs ctest test && is_ended_by INT 130
}

ASignalEndsTheBusyLoops() {
    fresh
    starts_and_hangs ctest test --load && is_ended_by TERM 143 && eventually no_loop_is_left
}
no_loop_is_left() { ! grep -qsz "^FC_RUN=.*\<$DEV-" /proc/[0-9]*/environ; }

ASignalEndsAnInstallation() {
    fresh
    touch "$FAKE_STATE/dpkg-query.failing"
    starts_and_hangs apt-get package && is_ended_by TERM 143
}

ASignalEndsAnInstallationBySudo() {
    fresh
    touch "$FAKE_STATE/dpkg-query.failing" "$FAKE_STATE/id.of-a-user"
    starts_and_hangs apt-get package || return
    kill "$DEV"
    ends_with 143 && called '^sudo ' && eventually has_ended "$(tail -n 1 "$FAKE_STATE/pids")" || return
    goes_on apt-get
    # Its own children are not checked.
    mapfile -t left <"$FAKE_STATE/pids"
    kill "${left[@]}" 2>/dev/null || true
}

ASignalEndsTheHost() {
    fresh
    starts_and_hangs fc-host.exe host loop.lua && is_ended_by TERM 143
}

AProcessThatIgnoresTheSignalIsKilled() {
    fresh
    touch "$FAKE_STATE/ninja.deaf"
    starts_and_hangs ninja package && is_ended_by TERM 143
}

TheHostSavesItsResultsWhenItIsInterrupted() {
    fresh
    starts_and_hangs fc-host.exe run && is_ended_by INT 130 || return
    [ -e "$FAKE_STATE/kept" ] || because "the host was not interrupted but killed" || return
    says_not 'The report is'
}

# on_terminal PROGRAM ARGS...: presses Ctrl-C when the fake program runs. Leaves the status in STATUS, and what was shown.
on_terminal() {
    local line terminal
    touch "$FAKE_STATE/$1.hangs"
    dev_command -- "${@:2}"
    printf -v line '%q ' "${COMMAND[@]}"
    rm -f "$WORK/keys"
    mkfifo "$WORK/keys"
    SHELL=/bin/bash timeout 100 env --default-signal=INT,QUIT script -qec "$line" "$SAID" <>"$WORK/keys" >/dev/null 2>&1 &
    terminal=$!
    eventually test -e "$FAKE_STATE/$1.is-hanging" || return
    printf '\003' >"$WORK/keys"
    STATUS=0
    wait $terminal || STATUS=$?
}

CtrlCOnATerminalEndsTheBuildWithoutAnError() {
    fresh
    on_terminal ninja package || return
    [ "$STATUS" -eq 130 ] || because "status $STATUS: $(<"$SAID")" || return
    all_have_ended && says 'interrupted by user' && says_not 'error:|failed'
}

CtrlCOnATerminalReachesTheHost() {
    fresh
    on_terminal fc-host.exe run || return
    [ "$STATUS" -eq 130 ] || because "status $STATUS: $(<"$SAID")" || return
    [ -e "$FAKE_STATE/kept" ] || because "the host was killed" || return
    all_have_ended && says_not 'error:|The report is'
}

TheHostReadsFromTheTerminal() {
    local line
    fresh
    touch "$FAKE_STATE/fc-host.exe.reading"
    dev_command -- shell
    printf -v line '%q ' "${COMMAND[@]}"
    SHELL=/bin/bash timeout 60 script -qec "$line" "$SAID" <<<"from the keys" >/dev/null 2>&1
    grep -q 'it reads from the keys' "$FAKE_STATE/read" || because "$(<"$SAID")"
}

TheRunAfterAnInterruptedOneSucceeds() {
    fresh
    starts_and_hangs cmake test && is_ended_by TERM 143 || return
    goes_on cmake
    dev -- test
    succeeds && says '1 passed, 0 failed, 0 skipped'
}

TwoRunsOfTestsWaitForEachOther() {
    local first
    fresh
    starts_and_hangs ctest test one || return
    first=$DEV
    start -- test one
    eventually has_said 'another ./dev is at work' || return
    [ "$(<"$FAKE_STATE/tests")" = begin ] || because "both are at it: $(<"$FAKE_STATE/tests")" || return
    goes_on ctest
    ends_with 0 && says '1 passed, 0 failed, 0 skipped' || return
    wait "$first" || because "the first one failed" || return
    [ "$(<"$FAKE_STATE/tests")" = $'begin\nend\nbegin\nend' ] || because "$(<"$FAKE_STATE/tests")"
}

EverythingThatUsesTheBuildFolderWaits() {
    local first command
    fresh
    starts_and_hangs ctest test || return
    first=$DEV
    for command in run bench check package shell host clean; do
        start -- $command
        eventually has_said "another ./dev is at work in $BUILD; waiting for it" || return
        is_ended "$DEV" || return
    done
    DEV=$first
    is_ended "$DEV"
}
is_ended() {
    kill "$1"
    ends_with 143
}

CleanWaitsForAProgramThatRuns() {
    local host
    fresh
    starts_and_hangs fc-host.exe host loop.lua || return
    host=$DEV
    start -- clean
    eventually has_said "another ./dev is running programs of $BUILD; waiting for it" || return
    [ -e "$BUILD/wine/system.reg" ] || because "the prefix is gone" || return
    goes_on fc-host.exe
    ends_with 0 || return
    wait "$host" || because "the host failed" || return
    [ ! -e "$BUILD" ] || because "the build folder is left"
}

ABuildDoesNotWaitForAProgramThatRuns() {
    local host
    fresh
    starts_and_hangs fc-host.exe host loop.lua || return
    host=$DEV
    dev -- test
    succeeds && says_not 'waiting' || return
    goes_on fc-host.exe
    wait "$host" || because "the host failed"
}

ARunThatWaitedForACleanStartsFromScratch() {
    local first clean
    fresh
    starts_and_hangs ninja test || return
    first=$DEV
    start -- clean
    clean=$DEV
    eventually has_said 'waiting for it' || return
    start -- test
    eventually has_said 'waiting for it' || return
    goes_on ninja
    ends_with 0 && says '1 passed' || return
    wait "$first" || because "the first test failed" || return
    wait "$clean" || because "the clean failed"
}

for name in ASignalEndsWhatRunsInTheBackground ASignalEndsTheBuild ASignalEndsTheTests ASignalEndsTheBusyLoops \
    ASignalEndsAnInstallation ASignalEndsAnInstallationBySudo ASignalEndsTheHost AProcessThatIgnoresTheSignalIsKilled TheHostSavesItsResultsWhenItIsInterrupted \
    CtrlCOnATerminalEndsTheBuildWithoutAnError CtrlCOnATerminalReachesTheHost TheHostReadsFromTheTerminal \
    TheRunAfterAnInterruptedOneSucceeds TwoRunsOfTestsWaitForEachOther EverythingThatUsesTheBuildFolderWaits \
    CleanWaitsForAProgramThatRuns ABuildDoesNotWaitForAProgramThatRuns ARunThatWaitedForACleanStartsFromScratch; do
    test_case "$name"
done
write_results interruption-tests "$XML"
