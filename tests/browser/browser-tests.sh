#!/usr/bin/env bash
# Checks the host's report in a real browser: runs examples, opens their pages in Chromium, reads the findings of check.js.
#   browser-tests.sh BIN EXAMPLES XML [WINE...]
# BIN holds fc-host.exe, which WINE runs; the results go to XML, as GoogleTest writes them.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
BIN=$1 EXAMPLES=$2 XML=$3
WINE=("${@:4}")
[ ${#WINE[@]} -gt 0 ] || WINE=(wine)
BROWSER=$(command -v chromium || true)
# shellcheck source=tests/support/shell-tests.sh
. "$HERE/../support/shell-tests.sh" Report

# browse PAGE OPTIONS...: runs the browser without a window, with its own profile.
browse() {
    local page=$1 profile
    shift
    profile=$(mktemp -d "$WORK/profile.XXXXXX")
    timeout 120 "$BROWSER" --headless --no-sandbox --disable-gpu --disable-dev-shm-usage --disable-quic --no-first-run \
        --disable-background-networking --disable-component-update --disable-sync --user-data-dir="$profile" \
        --virtual-time-budget=2000 "$@" "file://$page" 2>"$WORK/browser.log"
}

# report NAME ARGUMENTS...: runs the host, which writes NAME.html; its script's output goes to NAME.out. The host may end
# with $STATUS, too.
report() {
    local name=$1
    shift
    (cd "$BIN" && timeout 300 "${WINE[@]}" fc-host.exe --clock steps --quiet --report "$WORK/$name.html" "$@") \
        >"$WORK/$name.out" 2>"$WORK/$name.err" || [ $? = "${STATUS:-0}" ] || because "the host failed: $(tail -n 3 "$WORK/$name.err")"
}

# inspect NAME WIDTH OPTIONS...: leaves what check.js finds in NAME.found.
inspect() {
    local name=$1 width=$2
    shift 2
    {
        cat "$WORK/$name.html"
        printf '<script>\n%s\n</script>\n' "$(<"$HERE/check.js")"
    } >"$WORK/$name-checked.html"
    browse "$WORK/$name-checked.html" --window-size="$width,1000" --dump-dom "$@" >"$WORK/$name.dom" ||
        because "the browser failed: $(tail -n 1 "$WORK/browser.log")" || return
    sed -n '/<pre id="check">/,/<\/pre>/p' "$WORK/$name.dom" |
        sed 's/.*<pre id="check">//; s/<\/pre>.*//' >"$WORK/$name.found"
    [ -s "$WORK/$name.found" ] || because "check.js has not run in $name.html"
}

# has_no_faults NAME: call it after inspect.
has_no_faults() {
    local faults
    faults=$(grep '^fault: ' "$WORK/$1.found" || true)
    [ -z "$faults" ] || because "$faults"
}

# finds NAME LINE: expects the line in what inspect has left.
finds() {
    grep -qxF -- "$2" "$WORK/$1.found" || because "expected '$2', found: $(tr '\n' ';' <"$WORK/$1.found")"
}

# shows NAME TEXT: expects the text in the page as it was drawn, outside its data.
shows() {
    sed '/<script type="application\/json"/,/<\/script>/d' "$WORK/$1.dom" | grep -F -- "$2" >/dev/null ||
        because "the page does not show '$2'" # grep -q would break sed's pipe
}

TheBrowserIsInstalled() {
    [ -n "$BROWSER" ] || because "there is no chromium: ./dev test installs it and runs this test"
}

TheExampleWritesItsPage() {
    report health "$EXAMPLES/health.lua" --out "$WORK/out" || return
    [ -s "$WORK/health.html" ] || because "the example has made no page, which the other tests look at"
}

TheExampleIsDrawnWithoutErrors() {
    inspect health 1300 && finds health 'errors: 0' && finds health 'charts: 8' && finds health 'dark: false' &&
        has_no_faults health
}

# The script's output compared with the page: the agent's view and the module's log.
TheTransitionsOfTheExampleAreListed() {
    local count
    count=$(grep -cE 'FAIL-OPEN|RECOVERED|check failed' "$WORK/health.out")
    [ "$count" -ge 8 ] || because "the example tells of $count transitions only" || return
    inspect health 1300 && finds health "transitions: $count" && shows health 'Into fail-open' && shows health 'Processor queue' &&
        shows health 'A build begins on all processors' && shows health 'the counters are locked'
}

NothingOverlapsInANarrowWindow() {
    inspect health 500 && finds health 'errors: 0' && has_no_faults health
}

TheDarkPageIsDrawnToo() {
    inspect health 1000 --blink-settings=preferredColorScheme=0 && finds health 'errors: 0' &&
        finds health 'dark: true' && has_no_faults health
}

# A page of one colour would be compressed to a few kilobytes.
TheScreenshotIsNotBlank() {
    local size
    browse "$WORK/health.html" --window-size=1300,2300 --screenshot="$WORK/health.png" >/dev/null ||
        because "the browser failed: $(tail -n 1 "$WORK/browser.log")" || return
    size=$(stat -c %s "$WORK/health.png")
    [ "$size" -gt 100000 ] || because "the screenshot has only $size bytes"
}

ARunWithoutIterationsSaysSo() {
    printf 'host.mark("</script><b id=injected>&\\"")' >"$WORK/none.lua"
    report none "$WORK/none.lua" && inspect none 1000 && finds none 'errors: 0' && finds none 'empty: true' &&
        finds none 'charts: 0' && finds none 'notes: 1' && shows none '&lt;/script&gt;&lt;b id=injected&gt;&amp;"'
}

ARunOfOneIterationIsDrawn() {
    cat >"$WORK/one.lua" <<'LUA'
host.use_program_data(arg[1])
io.open(arg[1] .. "/filter/vt_filter.conf", "w"):write("SYSTEM_RUNQ_PCT_THRESHOLD=50\n"):close()
host.machine.processor_queue = 60
require "fc"
SLB.filter.CheckSystemHealthMetrics(host.dom(), "Deactivated", "")
LUA
    report one "$WORK/one.lua" "$WORK/data" && inspect one 1000 && finds one 'errors: 0' && finds one 'charts: 8' &&
        finds one 'transitions: 1' && finds one 'rows at the pointer: 6' &&
        has_no_faults one && shows one 'Processor queue 60 is above 50'
}

# Makes the page of the story, for whichever test comes first.
story() {
    [ -s "$WORK/story.html" ] || report story "$EXAMPLES/story.lua" --out "$WORK/story"
}

TheStepsOfTheStoryAreDrawn() {
    story || return
    inspect story 1300 && finds story 'errors: 0' && finds story 'charts: 13' && finds story 'step charts: 5' &&
        finds story 'steps killed: 1' && finds story 'marked as killed: 1' && has_no_faults story &&
        shows story 'Health and driver report' && shows story 'upgraded from 2.0.0.0 to 2.1.0.0' &&
        shows story 'upgrade from 2.1.0.0 to 2.2.0.0 failed in InstallingDriver, killed after ' &&
        shows story 'Removal 1: removed'
}

TheStepsAreDrawnInANarrowWindow() {
    story || return
    inspect story 500 && finds story 'errors: 0' && finds story 'steps killed: 1' && has_no_faults story
}

TheStepsAreDrawnOnADarkPage() {
    story || return
    inspect story 1000 --blink-settings=preferredColorScheme=0 && finds story 'errors: 0' && finds story 'dark: true' &&
        finds story 'marked as killed: 1' && has_no_faults story
}

ARemovalWithoutHealthIterationsIsDrawn() {
    cat >"$WORK/removal.lua" <<'LUA'
host.machine.put_component { id = "qbimvta", result = 0x80004005 }
require "fc"
SLB.filter.UninstallDriver(host.dom(), "", "")
LUA
    report removal "$WORK/removal.lua" && inspect removal 1000 && finds removal 'errors: 0' &&
        finds removal 'charts: 1' && finds removal 'step charts: 1' && finds removal 'empty: false' &&
        finds removal 'rows at the pointer: 3' && finds removal 'steps killed: 0' && has_no_faults removal &&
        shows removal 'Driver report' &&
        shows removal 'Removal 1: failed in UninstallingDriver with 0x80004005'
}

# Makes the page with each outcome, for whichever test comes first.
outcomes() {
    [ -s "$WORK/outcomes.html" ] || report outcomes "$HERE/outcomes.lua"
}

# What a support engineer asks first stands in the titles and at the top.
EachOutcomeIsInItsTitleAndTheErrorsCountThem() {
    outcomes || return
    inspect outcomes 1000 && has_no_faults outcomes && finds outcomes 'errors: 0' && finds outcomes 'failed titles: 2' &&
        finds outcomes 'tile: 4 installations' && finds outcomes 'tile: 2 removals' && finds outcomes 'tile: 2 failed' &&
        finds outcomes 'tile: 1 step killed' && finds outcomes 'tile: 7 errors: 5 in the log, 2 failed' &&
        finds outcomes 'title: Installation 1: installed 2.0.0.0' &&
        finds outcomes 'title: Installation 2: nothing to do' &&
        finds outcomes 'title: Installation 3: upgrade from 2.0.0.0 to 2.1.0.0 failed in InstallingDriver with 0x80004005 (INetCfgClassSetup::Install())' &&
        finds outcomes 'title: Removal 1: removed; the callout qbimwfp is left behind' &&
        finds outcomes 'title: Installation 4: installed 2.1.0.0; a reboot is needed' &&
        shows outcomes 'Removal 2: failed in UninstallingDriver, killed after ' &&
        finds outcomes 'state: Afterwards: no driver runs · the filter is not installed · callout running · Ethernet not bound · write lock free'
}

TheEndOfALogIsShownAndExpandsToTheWhole() {
    outcomes || return
    inspect outcomes 1000 && finds outcomes 'excerpts that expand: true' && finds outcomes 'stacks: 1' && shows outcomes 'The whole log, ' &&
        shows outcomes '[00] '
}

ErrorsAndRunsThatThePageLeavesOutAreCounted() {
    cat >"$WORK/many.lua" <<'LUA'
require "fc"
local function remove() SLB.filter.UninstallDriver(host.dom(), "", "") end
for number = 1, 1000 do host.mark("mark " .. number) end
host.machine.put_component { id = "qbimvta" }
host.fault { call = "INetCfgClassSetup::DeInstall", nth = 1, fail = 0x80004005 }
for _ = 1, 102 do remove() end
LUA
    report many "$WORK/many.lua" && inspect many 1000 && finds many 'errors: 0' && finds many 'tile: 102 removals' &&
        finds many 'tile: 1 failed' && finds many 'tile: 2 errors: 1 in the log, 1 failed' &&
        shows many '2 earlier ones were left out of this page' && shows many 'Removal 102: nothing to do'
}

TheErrorThatEndedTheScriptIsShown() {
    printf 'error("the script is over", 0)' >"$WORK/dead.lua"
    outcomes || return
    inspect outcomes 1000 && finds outcomes 'script error: false' || return
    STATUS=1 report dead "$WORK/dead.lua" && inspect dead 1000 && finds dead 'script error: true' &&
        finds dead 'tile: 1 error: the script' && shows dead 'the script is over' && shows dead 'stack traceback:' &&
        shows dead 'ended with status 1'
}

NoOutcomeOverlapsInANarrowWindow() {
    outcomes || return
    inspect outcomes 500 && finds outcomes 'errors: 0' && has_no_faults outcomes
}

for name in TheBrowserIsInstalled TheExampleWritesItsPage; do # the others need both files
    [ "$FAILED" -gt 0 ] || test_case "$name"
done
if [ "$FAILED" -eq 0 ]; then
    for name in TheExampleIsDrawnWithoutErrors TheTransitionsOfTheExampleAreListed NothingOverlapsInANarrowWindow \
        TheDarkPageIsDrawnToo TheScreenshotIsNotBlank ARunWithoutIterationsSaysSo ARunOfOneIterationIsDrawn \
        TheStepsOfTheStoryAreDrawn TheStepsAreDrawnInANarrowWindow TheStepsAreDrawnOnADarkPage \
        ARemovalWithoutHealthIterationsIsDrawn EachOutcomeIsInItsTitleAndTheErrorsCountThem \
        TheEndOfALogIsShownAndExpandsToTheWhole TheErrorThatEndedTheScriptIsShown NoOutcomeOverlapsInANarrowWindow \
        ErrorsAndRunsThatThePageLeavesOutAreCounted; do
        test_case "$name"
    done
fi
write_results browser-tests "$XML"
