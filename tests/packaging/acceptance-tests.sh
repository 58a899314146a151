#!/usr/bin/env bash
# Unpacks the devkit's package as on a machine that has never seen its sources, in a new Wine prefix without the drive Z:, and
# runs its accept.cmd with Wine's cmd.
#   acceptance-tests.sh BIN PACKAGES XML [WINE]
# BIN holds runner-crash.exe, PACKAGES the package; the results go to XML, as GoogleTest writes them. FC_ACCEPT_ALL=1 runs all
# test programs instead of a few fast ones.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
BIN=$1 PACKAGES=$2 XML=$3
WINE=${4:-wine}
# shellcheck source=tests/support/shell-tests.sh
. "$HERE/../support/shell-tests.sh" Acceptance
export WINEPREFIX=$WORK/prefix WINEDEBUG=-all WINEARCH=win64 WINEDLLOVERRIDES="winemenubuilder.exe=d;mscoree=d;mshtml=d"
end_wine() { "$(dirname "$WINE")/wineserver" "$1" 2>/dev/null || wineserver "$1" || true; }
trap 'end_wine -k; rm -rf "$WORK"' EXIT

# Some tests would change the user's own machine. Stack dumps are slow.
PROGRAMS=(fc-load-tests fc-tests firewall-tests diagnostics-tests installer-tests removal-tests)
FEW='-StackDump*'
PLACE="$WINEPREFIX/drive_c/a place with blanks"

# accept ARGS...: runs accept.cmd from another folder, leaves its output in `said` and its status in STATUS.
accept() {
    end_wine -k # its services use the folder in which the first program ran
    rm -f "$WINEPREFIX/drive_c/status.txt"
    printf '@cd /d C:\\windows\r\n@call "C:\\a place with blanks\\%s\\accept.cmd" %s\r\n@>C:\\status.txt echo %%errorlevel%%\r\n' \
        "${DEVKIT##*/}" "$*" >"$WINEPREFIX/drive_c/run.cmd"
    (cd / && timeout 7200 "$WINE" cmd /c 'C:\run.cmd') >"$WORK/said" 2>&1 </dev/null || true
    STATUS=$(tr -d '\r\n' <"$WINEPREFIX/drive_c/status.txt" || echo none)
}

# fails_with TEXT: expects that the last run failed and printed it.
fails_with() {
    [ "$STATUS" = 1 ] || because "the status is $STATUS: $(tail -n 5 "$WORK/said")" || return
    grep -qF -- "$1" "$WORK/said" || because "it says: $(tail -n 5 "$WORK/said")" || return
    [ ! -e "$DEVKIT/results/passed.txt" ] || because "it counts as passed" || return
    grep -q '<h1 class="failed">' "$DEVKIT/results/summary.html" || because "the page says nothing of it"
}

# Everything that a program may have changed, except folders of temporary files and the package's own.
machine() {
    end_wine -w
    (cd "$WINEPREFIX" && find drive_c -path "drive_c/a*" -prune -o -path '*/[Tt]emp/*' -prune -o -name status.txt -prune -o \
        -name run.cmd -prune -o -printf '%p %s %T@\n' | grep -v '^drive_c/users/[^ ]* \|^drive_c [0-9]' | LC_ALL=C sort)
    # Without the times of the keys, and the lists of fonts, network cards, display adapters and monitors, which Wine itself creates
    # and removes.
    awk '/^\[/ { skip = /Fonts|NetworkCards|\{4[Dd]36[Ee]96[8Ee]-/; sub(/ [0-9]+$/, "") } NF && !skip && !/^#time/' \
        "$WINEPREFIX/system.reg" "$WINEPREFIX/user.reg"
}

# unpack FOLDER: unpacks the devkit's package there, with the line of the workflow for public runners.
unpack() {
    local line
    line=$(sed -n '/name: Unpack$/,/name: Accept$/s/^ *run: //p' "$HERE/../../.github/workflows/ci.yml")
    mkdir -p "$1"
    cp "$PACKAGES"/fc-devkit-*.zip "$1/"
    (cd "$1" && bash --noprofile --norc -eo pipefail -c "${line:?}") >"$WORK/log" 2>&1 ||
        because "'$line' does not unpack it: $(cat "$WORK/log")" || return
    DEVKIT=$1/devkit
    rm "$1"/fc-devkit-*.zip
}

TheTestProgramsPassWithoutTheDriveOfThisMachine() {
    local name
    "$WINE" wineboot --init >"$WORK/log" 2>&1 </dev/null || because "$(tail -n 3 "$WORK/log")" || return
    end_wine -w
    rm -f "$WINEPREFIX/dosdevices/z:"
    unpack "$PLACE" || return
    machine >"$WORK/before"
    if [ -n "${FC_ACCEPT_ALL:-}" ]; then
        mapfile -t PROGRAMS < <(tr -d '\r' <"$DEVKIT/bin/test-programs.txt")
        accept
    else
        GTEST_FILTER=$FEW accept "${PROGRAMS[@]}"
    fi
    [ ! -e "$WINEPREFIX/dosdevices/z:" ] || because "the drive Z: has come back" || return
    [ "$STATUS" = 0 ] || because "the status is $STATUS: $(tail -n 5 "$WORK/said")" || return
    grep -qE '^[0-9]+ passed, 0 failed, [0-9]+ skipped' "$WORK/said" || because "it says: $(tail -n 5 "$WORK/said")" || return
    for name in "${PROGRAMS[@]}"; do
        grep -q '<testcase ' "$DEVKIT/results/$name.xml" || because "$name.xml has no test" || return
        grep -q "<td>$name</td>" "$DEVKIT/results/summary.html" || because "$name is not on the page" || return
    done
}

ItShowsItsProgress() {
    grep -qF "[1/${#PROGRAMS[@]}] ${PROGRAMS[0]}" "$WORK/said" || because "it says: $(head -n 5 "$WORK/said")" || return
    grep -qF "[${#PROGRAMS[@]}/${#PROGRAMS[@]}] ${PROGRAMS[-1]}" "$WORK/said" || because "it says: $(tail -n 5 "$WORK/said")"
}

ThePageNamesTheVersionAndSkippedSuites() {
    local text
    for text in "$(sed -n 's/^fc-host \([^,]*\),.*/\1/p' "$DEVKIT/results/version.txt")" RealService RealRegistryTree RealKey RealInf; do
        grep -qF "${text:?}" "$DEVKIT/results/summary.html" || because "it does not name '$text'" || return
    done
    ! grep -hE 'classname="Real(Service|Services|RegistryTree|Key|Inf|InfByHand|Firewall)"' "$DEVKIT"/results/*.xml ||
        because "such a test was run"
}

TheMachineIsUnchanged() {
    machine >"$WORK/after"
    diff "$WORK/before" "$WORK/after" >"$WORK/log" || because "$(head -n 10 "$WORK/log")"
}

AFailedTestFailsTheAcceptance() {
    mv "$DEVKIT/bin/test-data/docs/steps.md" "$WORK/"
    GTEST_FILTER='StepTable.*' accept installer-tests
    mv "$WORK/steps.md" "$DEVKIT/bin/test-data/docs/"
    fails_with 'installer-tests failed in' || return
    grep -q 'StepTable' "$DEVKIT/results/summary.html" || because "the page does not name the test"
}

ACrashFailsTheAcceptance() {
    cp "$BIN/runner-crash.exe" "$DEVKIT/bin/crash-tests.exe"
    GTEST_FILTER='ModuleFile.*' accept crash-tests fc-load-tests
    fails_with 'crash-tests left no results and crashed: 0xC0000005'
}

AMissingProgramFailsTheAcceptance() {
    GTEST_FILTER='ModuleFile.*' accept fc-load-tests nosuch-tests
    fails_with 'nosuch-tests was not run'
}

ASlowProgramFailsTheAcceptance() {
    FC_TEST_SECONDS=1 accept installer-tests
    fails_with 'installer-tests was killed after 1 s'
}

# judges STATUS [SED-SCRIPT]: checks the verdict on the results of two tests, changed by the script.
judges() {
    local results=$DEVKIT/results
    rm -rf "$results"
    mkdir -p "$results"
    echo one-tests >"$results/programs.txt"
    printf '%s' "$1" >"$results/one-tests.status"
    sed "${2:-}" >"$results/one-tests.xml" <<'XML'
<?xml version="1.0" encoding="UTF-8"?>
<testsuites tests="2" failures="0" disabled="0" errors="0" time="0.1" name="AllTests">
  <testsuite name="Suite" tests="2" failures="0" disabled="0" skipped="0" errors="0" time="0.1">
    <testcase name="First" status="run" result="completed" time="0." classname="Suite" />
    <testcase name="Second" status="run" result="completed" time="0." classname="Suite" />
  </testsuite>
</testsuites>
XML
    printf '@cd /d C:\\a place with blanks\\%s\\results\r\n@..\\bin\\fc-host.exe --quiet ..\\bin\\accept.lua summary\r\n@>C:\\status.txt echo %%errorlevel%%\r\n' \
        "${DEVKIT##*/}" >"$WINEPREFIX/drive_c/run.cmd"
    (cd / && timeout 300 "$WINE" cmd /c 'C:\run.cmd') >"$WORK/said" 2>&1 </dev/null || true
    STATUS=$(tr -d '\r\n' <"$WINEPREFIX/drive_c/status.txt")
}

OnlyCompleteResultsWithASuccessfulStatusPass() {
    judges 0
    [ "$STATUS" = 0 ] && [ -e "$DEVKIT/results/passed.txt" ] || because "good results do not pass: $(cat "$WORK/said")" || return
    judges 0 '/<.testsuites>/d' && fails_with 'left incomplete results' || return
    judges 0 '/Second/d' && fails_with 'left incomplete results' || return
    judges 0 '/testcase/d; s/tests="2"/tests="0"/' && fails_with 'ran no tests' || return
    judges 0 's/failures="0"/failures="1"/' && fails_with 'left incomplete results' || return
    judges 3 && fails_with 'ended with status 3 after its tests' || return
    judges 3221225477 && fails_with 'crashed: 0xC0000005 after its tests' || return
    judges killed && fails_with 'was ended from outside' || return
    judges begun && fails_with 'was left by fc-launch.exe, which has ended' || return
    judges '' && fails_with 'was not run'
}

SkippedSuitesAreFoundInEachVersionOfTheResults() {
    judges 0 's/<testsuites /&left_out="RealKey" /'
    grep -qF RealKey "$DEVKIT/results/summary.html" || because "an attribute is not read" || return
    judges 0 's,^<testsuites .*,&<properties><property name="code_page" value="1252"/><property name="left_out" value="RealKey"/></properties>,'
    grep -qF RealKey "$DEVKIT/results/summary.html" || because "an element is not read"
}

for name in TheTestProgramsPassWithoutTheDriveOfThisMachine ItShowsItsProgress ThePageNamesTheVersionAndSkippedSuites \
    TheMachineIsUnchanged AFailedTestFailsTheAcceptance ACrashFailsTheAcceptance AMissingProgramFailsTheAcceptance ASlowProgramFailsTheAcceptance \
    OnlyCompleteResultsWithASuccessfulStatusPass SkippedSuitesAreFoundInEachVersionOfTheResults; do
    test_case "$name"
done
write_results acceptance-tests "$XML"
