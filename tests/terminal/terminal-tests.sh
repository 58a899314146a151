#!/usr/bin/env bash
# Checks what the host shows on a terminal, which `script` creates, and how Ctrl-C reaches it.
#   terminal-tests.sh BIN XML [WINE...]
# BIN holds fc-host.exe, which WINE runs; the results go to XML, as GoogleTest writes them.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
BIN=$1 XML=$2
WINE=("${@:3}")
[ ${#WINE[@]} -gt 0 ] || WINE=(wine)
# shellcheck source=tests/support/shell-tests.sh
. "$HERE/../support/shell-tests.sh" Terminal

# A removal that takes three seconds in one of its steps.
cat >"$WORK/removal.lua" <<'LUA'
require "fc"
host.machine.put_component { id = "qbimvta" }
host.fault { call = "INetCfgClassSetup::DeInstall", nth = 1, delay = 3 }
local folder = host.machine.folders().program_files
assert(SLB.filter.UninstallDriver(host.dom(), folder, folder))
print("the removal is over")
LUA

# Signals that it is ready by creating a file, and never ends.
cat >"$WORK/loop.lua" <<'LUA'
host.send_event(7, "before Ctrl-C")
io.open(arg[1], "w"):close()
while true do end
LUA

# on_terminal OPTIONS...: runs the removal. Leaves the terminal's output in `shown`, without cursor movements; an
# overwritten line is followed by its replacement on a line of its own.
on_terminal() {
    local command
    printf -v command '%q ' "${WINE[@]}" "$BIN/fc-host.exe" --fast 1 "$@" "$WORK/removal.lua"
    timeout 120 script -qec "$command" "$WORK/typescript" </dev/null >/dev/null ||
        because "the host failed: $(tail -n 3 "$WORK/typescript")" || return
    sed 's/\x1b\[?[0-9]*[hl]//g; s/\x1b\[K\x1b\[1C/ /g; s/\x1b\[[0-9;]*[A-Za-z]//g' "$WORK/typescript" |
        tr '\r' '\n' >"$WORK/shown"
}

TheCurrentStepIsShownInOneLineThatChanges() {
    local times
    on_terminal || return
    times=$(grep -oE '^removal, [0-9.]+ s: UninstallingDriver, [0-9.]+ s of 600 s' "$WORK/shown" | sort -u | wc -l)
    [ "$times" -ge 2 ] || because "the line has changed $times times: $(head -c 500 "$WORK/shown")" || return
    ! grep -q 'step  * [<>]' "$WORK/shown" || because "there are lines of steps, too" || return
    grep -qE '^[0-9:.]{12}  step    removal ends after [0-9.]+ s: removed *$' "$WORK/shown" ||
        because "the outcome is not shown: $(tail -c 300 "$WORK/shown")"
}

TheScriptsNextOutputBeginsOnAnEmptyLine() {
    on_terminal || return
    grep -qE '^the removal is over *$' "$WORK/shown" || because "the line is not there: $(tail -c 300 "$WORK/shown")"
}

NothingIsShownWhenTheHostIsQuiet() {
    on_terminal --quiet || return
    ! grep -q 'UninstallingDriver' "$WORK/shown" || because "a step is shown"
}

# The loop, with an events file of an earlier run. Its command is in `loop`.
prepare_loop() {
    rm -f "$WORK/ready"
    echo "older events" >"$WORK/events.json"
    loop=("${WINE[@]}" "$BIN/fc-host.exe" --quiet --events "$WORK/events.json" "$WORK/loop.lua" "$WORK/ready")
}

await_ready() {
    local tries
    for ((tries = 0; tries < 600; tries++)); do
        [ ! -e "$WORK/ready" ] || return 0
        sleep 0.1
    done
    because "the script was never ready"
}

# leaves_events STATUS: checks how the loop ended.
leaves_events() {
    [ "$1" -eq 130 ] || because "the status is $1" || return
    grep -qF '"before Ctrl-C"' "$WORK/events.json" || because "the events are $(head -c 200 "$WORK/events.json")"
}

CtrlCOnATerminalEndsALoopWith130AndWritesItsEvents() {
    local command status=0
    prepare_loop
    printf -v command '%q ' "${loop[@]}"
    { await_ready && printf '\003' && sleep 1; } |
        timeout 120 script -qec "$command" "$WORK/typescript" >/dev/null || status=$?
    leaves_events "$status"
}

AnInterruptSignalEndsALoopWith130AndWritesItsEvents() {
    local status=0 group
    prepare_loop
    setsid timeout --foreground 120 "${loop[@]}" </dev/null >"$WORK/shown" 2>&1 &
    group=$!
    await_ready || { kill -KILL -- "-$group"; return 1; }
    kill -INT -- "-$group"
    wait "$group" || status=$?
    leaves_events "$status"
}

AFullOutputIsReportedWithItsReason() {
    local status=0
    echo 'print(("x"):rep(100000))' >"$WORK/print.lua"
    timeout 120 "${WINE[@]}" "$BIN/fc-host.exe" --quiet "$WORK/print.lua" >/dev/full 2>"$WORK/shown" </dev/null || status=$?
    [ "$status" -ne 0 ] || because "the status is 0" || return
    grep -qF 'cannot write all of the standard output: No space left on device; check the disk' "$WORK/shown" ||
        because "it says: $(head -c 300 "$WORK/shown")"
}

for name in TheCurrentStepIsShownInOneLineThatChanges TheScriptsNextOutputBeginsOnAnEmptyLine \
    NothingIsShownWhenTheHostIsQuiet CtrlCOnATerminalEndsALoopWith130AndWritesItsEvents \
    AnInterruptSignalEndsALoopWith130AndWritesItsEvents AFullOutputIsReportedWithItsReason; do
    test_case "$name"
done
write_results terminal-tests "$XML"
