#!/usr/bin/env bash
# Runs all benchmarks in their short form, in one program as ./dev bench does.
#   bench-smoke.sh BIN XML [WINE...]
# BIN holds fc-bench.exe, which WINE runs; the results go to XML, as GoogleTest writes them.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
BIN=$1 XML=$2
WINE=("${@:3}")
[ ${#WINE[@]} -gt 0 ] || WINE=(wine)
# shellcheck source=tests/support/shell-tests.sh
. "$HERE/../support/shell-tests.sh" Benchmarks

# bench ARGUMENTS...: leaves the output in `out` and the status in STATUS.
bench() {
    STATUS=0
    timeout 300 "${WINE[@]}" "$BIN/fc-bench.exe" "$@" >"$WORK/out" 2>&1 || STATUS=$?
}

AllGroupsAreMeasuredInOneRun() {
    local row
    bench --short
    [ "$STATUS" -eq 0 ] || because "status $STATUS: $(tail -n 3 "$WORK/out")" || return
    for row in 'AddToConnMetrics, present key' 'memory of 10,000 keys' 'CheckSystemHealthMetrics, its own share' \
        'AddDriverDiagnostics, its own share' 'the seven driver-flag functions' 'scan of 1 MiB of INF text' \
        'a step of a driver thread' "a fresh installation's own time" 'an upgrade with 10 adapters' \
        "from a hung step's limit to its kill"; do
        grep -q "^$row.* [0-9]*\.[0-9]* " "$WORK/out" || because "there is no row '$row': $(tail -n 3 "$WORK/out")" || return
    done
}

# After AllGroupsAreMeasuredInOneRun.
AShortRunChecksNoGoals() {
    grep -qx 'A short run: the figures mean nothing\.[[:space:]]*' "$WORK/out" || because 'it does not say that it is short' || return
    ! grep -qiw 'met' "$WORK/out" || because "$(grep -iw -m 1 'met' "$WORK/out")"
}

AnUnknownGroupIsRefused() {
    bench --short metric
    [ "$STATUS" -eq 2 ] || because "status $STATUS: $(tail -n 3 "$WORK/out")"
}

AnOptionWithoutItsFileIsRefused() {
    bench --short --json
    [ "$STATUS" -eq 2 ] || because "status $STATUS: $(tail -n 3 "$WORK/out")"
}

AFileThatCannotBeWrittenIsRefusedBeforeMeasuring() {
    bench --short --json "$WORK/nosuch/rows.json" flags
    [ "$STATUS" -eq 2 ] || because "status $STATUS: $(tail -n 3 "$WORK/out")" || return
    grep -q "can't write" "$WORK/out" || because "it says: $(<"$WORK/out")" || return
    ! grep -q 'driver-flag' "$WORK/out" || because "it has measured"
}

RowsAreWrittenToAFileOfAnyName() {
    bench --short --json "$WORK/größe 日本.json" flags
    [ "$STATUS" -eq 0 ] || because "status $STATUS: $(tail -n 3 "$WORK/out")" || return
    grep -q 'the seven driver-flag functions' "$WORK/größe 日本.json" || because "there is no row in: $(ls "$WORK")"
}

# is_there FILE: waits for it, at most a minute.
is_there() {
    local i
    for ((i = 0; i < 600; i++)); do
        [ ! -e "$1" ] || return 0
        sleep 0.1
    done
    because "there is no $1"
}

FinishedGroupsAreKeptWhenALaterOneFails() {
    local rows="$WORK/rows.json" bench
    # shellcheck disable=SC2016 # expanded by the inner shell
    bash -c '. "$1/../../scripts/supervise.sh"; supervise "${@:2}"' bench "$HERE" "${WINE[@]}" "$BIN/fc-bench.exe" \
        --short --json "$rows" >"$WORK/out" 2>&1 </dev/null &
    bench=$!
    is_there "$rows" || return
    kill $bench
    wait $bench 2>/dev/null || true
    grep -q 'AddToConnMetrics, present key' "$rows" || because "the rows are: $(<"$rows")" || return
    [ "$(tail -c 2 "$rows")" = ']' ] || because "the file is cut short: $(<"$rows")" || return
    grep -q '^AddToConnMetrics, present key' "$WORK/out" || because "they are not printed: $(<"$WORK/out")"
}

for name in AllGroupsAreMeasuredInOneRun AShortRunChecksNoGoals AnUnknownGroupIsRefused AnOptionWithoutItsFileIsRefused \
    AFileThatCannotBeWrittenIsRefusedBeforeMeasuring RowsAreWrittenToAFileOfAnyName \
    FinishedGroupsAreKeptWhenALaterOneFails; do
    test_case "$name"
done
write_results bench-smoke "$XML"
