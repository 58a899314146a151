#!/usr/bin/env bash
# Breaks programs on purpose, and checks whether ./dev notices: test programs in a temporary build folder,
# then the host and the benchmarks.
#   runner-tests.sh BIN XML [WINE]
# BIN holds fc-launch.exe, fc-host.exe and runner-crash.exe, which WINE runs; the results go to XML, as GoogleTest writes them.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
BIN=$1 XML=$2
WINE=${3:-wine}
REPOSITORY=$(cd "$HERE/../.." && pwd)
# shellcheck source=tests/support/shell-tests.sh
. "$HERE/../support/shell-tests.sh" Runner

# in_dev COMMAND...: runs it as ./dev would, with $WORK/build as the build folder. Leaves the output in $WORK/out, the
# status in STATUS. RUNNER_WINE is used as Wine. Tests run without lanes unless IN_LANES is empty.
in_dev() {
    STATUS=0
    # shellcheck disable=SC2016 # expanded by the inner shell
    FC_BUILD=$WORK/build FC_TEST_SECONDS=${SECONDS_OF_A_TEST:-60} bash -euo pipefail -c '
        prefix=${WINEPREFIX:-} CALLER=$PWD
        . "$1/scripts/common.sh"
        . "$1/scripts/wine.sh"
        . "$1/scripts/lanes.sh"
        . "$1/scripts/results.sh"
        . "$1/scripts/folders.sh"
        . "$1/scripts/sources.sh"
        . "$1/scripts/tests.sh"
        . "$1/scripts/coverage.sh"
        . "$1/scripts/mutate.sh"
        export WINEPREFIX=$prefix
        ANYWHERE=${IN_LANES-1}
        wine=$2
        wine_program() { echo "$wine"; }
        "${@:3}"' in_dev "$REPOSITORY" "${RUNNER_WINE:-$WINE}" "$@" >"$WORK/out" 2>&1 </dev/null || STATUS=$?
}

# entries NAME COMMAND [NAME COMMAND]...: gives the build folder these entries and no others. The commands are shell
# code, run in the folder of the results; they can call `result`.
entries() {
    local build=$WORK/build
    rm -rf "$build"
    mkdir -p "$build/test-results"
    while [ $# -gt 0 ]; do
        {
            declare -f result
            printf 'BIN=%q\nWINE=%q\nREPOSITORY=%q\n%s\n' "$BIN" "$WINE" "$REPOSITORY" "$2"
        } >"$build/$1.sh"
        echo "add_test($1 [==[$REPOSITORY/scripts/run-apart.sh]==] $1 bash [==[$build/$1.sh]==])
set_tests_properties($1 PROPERTIES WORKING_DIRECTORY [==[$build/test-results]==])" >>"$build/CTestTestfile.cmake"
        shift 2
    done
}

# result NAME TESTS FAILURES: leaves NAME.xml as GoogleTest would.
result() {
    local i
    echo '<?xml version="1.0" encoding="UTF-8"?>'
    echo "<testsuites tests=\"$2\" failures=\"$3\" disabled=\"0\" errors=\"0\" time=\"0.\" name=\"AllTests\">"
    echo "  <testsuite name=\"Fake\" tests=\"$2\" failures=\"$3\" disabled=\"0\" skipped=\"0\" errors=\"0\" time=\"0.\">"
    for ((i = 0; i < $2; i++)); do
        echo "    <testcase name=\"Test$i\" status=\"run\" classname=\"Fake\" />"
    done
    echo '  </testsuite>'
    echo '</testsuites>'
} >"$1.xml"

# says LINE: expects a line of the output.
says() {
    grep -qxF -- "$1" "$WORK/out" || because "'$1' is not in: $(tail -n 12 "$WORK/out")"
}

# mentions TEXT: expects a part of the output.
mentions() {
    grep -qF -- "$1" "$WORK/out" || because "'$1' is not in: $(tail -n 12 "$WORK/out")"
}

# ends_with_an_error: checks the last command's status.
ends_with_an_error() {
    [ "$STATUS" -ne 0 ] || because "the status is 0, after: $(tail -n 12 "$WORK/out")"
}

# passes PASSED: expects this of the last run of tests.
passes() {
    [ "$STATUS" -eq 0 ] || because "the status is $STATUS, after: $(tail -n 12 "$WORK/out")" || return
    says "$1 passed, 0 failed, 0 skipped"
}

# fails NAME FAULT PASSED FAILED: expects this of the last run of tests, because of that entry.
fails() {
    ends_with_an_error && says "error: $1 $2; its output ends with:" && says "$3 passed, $4 failed, 0 skipped"
}

ProgramsThatPassEndWithZero() {
    entries good 'result good 3 0' other 'result other 2 0'
    in_dev run_tests
    passes 5 || return
    in_dev run_tests other
    passes 2
}

AFailedTestCountsEvenIfItsProgramEndsWithZero() {
    entries good 'result good 3 0' bad 'echo "a word at the end"; result bad 4 1'
    in_dev run_tests
    fails bad 'failed in 1 of 4 tests' 6 1 && says '    a word at the end'
}

AProgramWithoutResultsFails() {
    entries good 'result good 3 0' silent 'echo "a word at the end"'
    in_dev run_tests
    fails silent 'left no results (status 0)' 3 1 && says '    a word at the end'
}

TruncatedResultsFail() {
    entries short 'result short 3 0; head -n -1 short.xml >cut; mv cut short.xml'
    in_dev run_tests
    fails short 'left incomplete results (status 0)' 0 1
}

ResultsWithFewerTestsThanTheyClaimFail() {
    entries short 'result short 3 0; sed -i "/Test1/d" short.xml'
    in_dev run_tests
    fails short 'left incomplete results (status 0)' 0 1
}

ARunWithoutTestsFails() {
    entries none 'result none 0 0'
    in_dev run_tests
    fails none 'ran no tests' 0 1
}

AProgramThatFailsAfterItsTestsFails() {
    entries late 'result late 3 0; exit 5'
    in_dev run_tests
    fails late 'ended with status 5 after its tests' 3 1
}

TheResultsOfAnotherEntryDoNotCount() {
    entries program 'result program 3 0' program-again 'result program 3 0'
    in_dev run_tests
    fails program-again 'left no results (status 0)' 3 1
}

ResultsOfAnEarlierRunDoNotCount() {
    entries once '[ -e ../was-here ] || result once 3 0; touch ../was-here'
    in_dev run_tests
    passes 3 || return
    in_dev run_tests
    fails once 'left no results (status 0)' 0 1
}

AProgramThatIsNotRunFails() {
    entries first 'exit 1' second 'result second 3 0'
    echo 'set_tests_properties(first PROPERTIES FIXTURES_SETUP f)
set_tests_properties(second PROPERTIES FIXTURES_REQUIRED f)' >>"$WORK/build/CTestTestfile.cmake"
    in_dev run_tests second
    fails second 'was not run' 0 2
}

TheOutputOfASlowProgramIsKept() {
    entries slow 'echo "a word before the end"; sleep 100'
    SECONDS_OF_A_TEST=1 in_dev run_tests
    fails slow 'was killed after 1 s' 0 1 && says '    a word before the end'
}

TheTemporaryFilesOfAProgramAreRemoved() {
    local folder
    # shellcheck disable=SC2016 # expanded by the entry
    entries good 'mktemp -d -p "$FC_TEMPORARY"; echo "$FC_TEMPORARY" >../folder; result good 1 0'
    in_dev run_tests
    passes 1 || return
    folder=$(<"$WORK/build/folder")
    [[ $folder == */fc-test.* && ! -e $folder ]] || because "left: $folder"
}

TheNextRunRemovesWhatAKilledOneLeft() {
    # shellcheck disable=SC2016 # expanded by the entry
    entries good '[ -e ../folder ] || { echo "$FC_TEMPORARY" >../folder; ls -d "$FC_TEMPORARY"; kill -KILL $(cut -d " " -f 4 /proc/$PPID/stat); sleep 1; }
result good 1 0'
    in_dev run_tests
    ends_with_an_error || return
    [ -d "$(<"$WORK/build/folder")" ] || because "nothing is left, so that this shows nothing" || return
    in_dev run_tests
    passes 1 || return
    [ ! -e "$(<"$WORK/build/folder")" ] || because "left: $(<"$WORK/build/folder")"
}

# in_lanes COMMAND...: runs it as in_dev does, with lanes, beside a prefix of which nobody has a copy.
in_lanes() {
    local prefix=$WORK/prefix
    rm -rf "$prefix" "$prefix"-*
    mkdir -p "$prefix"/{drive_c/windows/system32,dosdevices/z:}
    echo text >"$prefix/drive_c/windows/system32/kernel32.dll"
    for file in system user userdef; do echo "WINE REGISTRY Version 2" >"$prefix/$file.reg"; done
    "$WINE" --version >"$prefix/ready"
    IN_LANES='' WINEPREFIX=$prefix in_dev "$@"
}

# where_it_runs NAME: leaves its Wine prefix and its processors in NAME.where.
where_it_runs() {
    echo "${WINEPREFIX##*/} $(taskset -cp $$ | sed 's/.*: //')" >"$1.where"
    result "$1" 1 0
}

ATestProgramStaysOnOneProcessorWithAPrefixOfItsOwn() {
    local where processor
    where=$(declare -f where_it_runs)
    entries one "$where; where_it_runs one"
    echo 'set_tests_properties(one PROPERTIES RESOURCE_GROUPS lane:1)' >>"$WORK/build/CTestTestfile.cmake"
    in_lanes run_tests
    passes 1 || return
    read -r where processor <"$WORK/build/test-results/one.where"
    [[ $processor =~ ^[0-9]+$ && $where = "prefix-$processor" ]] || because "it ran in $where on the processors $processor"
}

AProgramThatNeedsSeveralProcessorsHasAll() {
    local where
    where=$(declare -f where_it_runs)
    entries one "$where; where_it_runs one"
    in_lanes run_tests
    passes 1 || return
    [ "$(<"$WORK/build/test-results/one.where")" = "prefix $(taskset -cp $$ | sed 's/.*: //')" ] ||
        because "it ran in $(<"$WORK/build/test-results/one.where")"
}

ACopyOfAPrefixHasARegistryOfItsOwn() {
    # shellcheck disable=SC2016 # expanded by the inner shell
    in_lanes eval 'copy_prefix "$WINEPREFIX-copy"; (WINEPREFIX=$WINEPREFIX-copy && prefix_is_ready)'
    [ "$STATUS" -eq 0 ] || because "the copy is incomplete: $(<"$WORK/out")" || return
    [ "$(stat -c %h "$WORK/prefix-copy/system.reg")" = 1 ] || because "the registry is shared"
}

AnUnknownNameFails() {
    entries good 'result good 3 0'
    in_dev run_tests goood
    ends_with_an_error && mentions "no test program is called 'goood'; there are: good"
}

AnUnknownNameBesideAKnownOneFails() {
    entries good 'result good 3 0'
    in_dev run_tests good nosuch
    ends_with_an_error && mentions "no test program is called 'nosuch'; there are: good"
}

ANameIsNotAPattern() {
    entries good 'result good 3 0'
    in_dev run_tests 'g.*'
    ends_with_an_error && mentions "no test program is called 'g.*'"
}

RunsUnderLoadAreAddedUpAndPrintTheirSeeds() {
    entries once '[ -e ../was-here ] || result once 3 0; touch ../was-here' seeded \
        'result seeded 2 0; sed -i "s/<testsuites /&random_seed=\"77\" /" seeded.xml'
    in_dev run_under_load 2
    fails once 'left no results (status 0)' 2 1 || return
    mentions 'run 2 of 2, beside 6 busy loops' && says '5 passed, 0 failed, 0 skipped' && says 'seeds: seeded=77'
}

# Wine loses about every fourth status.
ACrashOfATestProgramIsNoticed() {
    local i all=()
    for i in 1 2 3; do
        all+=("before$i" "$CRASH crash" "after$i" "result after$i 1 0; $CRASH crash-at-end")
    done
    entries "${all[@]}"
    in_dev run_tests
    for i in 1 2 3; do
        fails "before$i" 'left no results (status 5)' 3 6 &&
            fails "after$i" 'ended with status 5 after its tests' 3 6 || return
    done
    mentions '    the program begins' && says '    error: runner-crash.exe crashed: 0xC0000005'
}

# another_module PROGRAM COMMAND...: entries that run with another module, and such a module.
another_module() {
    entries "$@"
    mkdir -p "$WORK/build"/{bin,covered,mutants/bin,logs}
    touch "$WORK/build"/{covered,mutants/bin}/fc.{dll,pdb} "$WORK/build/bin/"{fc.dll,one-tests.exe}
}

# shellcheck disable=SC2016 # expanded by the entry
CRASH='"$REPOSITORY/scripts/run-windows.sh" "$WINE" "$BIN/runner-crash.exe"'

AChangeThatCrashesTheTestsIsCaught() {
    another_module good-replaced 'result good-replaced 3 0' crash-replaced "result crash-replaced 3 0; $CRASH crash-at-end"
    in_dev run_mutant "$WORK/build/mutants/bin" good-replaced crash-replaced
    ends_with_an_error && says 'crash ended with status 5 after its tests'
}

AChangeSurvivesOnlyWholeResults() {
    another_module good-replaced 'result good-replaced 3 0'
    in_dev run_mutant "$WORK/build/mutants/bin" good-replaced
    [ "$STATUS" -eq 0 ] || because "a change that nothing notices does not survive: $(tail -n 5 "$WORK/out")" || return
    another_module good-replaced 'result good-replaced 3 0' silent-replaced true
    in_dev run_mutant "$WORK/build/mutants/bin" good-replaced silent-replaced
    ends_with_an_error && says 'silent left no results (status 0)' || return
    another_module good-replaced 'result good-replaced 3 0'
    in_dev run_mutant "$WORK/build/mutants/bin" good-replaced nosuch-replaced
    ends_with_an_error && says 'nosuch was not run'
}

TheTestThatNoticesAChangeIsNamed() {
    another_module bad-replaced 'echo "[  FAILED  ] Suite.First (3 ms)"; result bad-replaced 3 1'
    in_dev run_mutant "$WORK/build/mutants/bin" bad-replaced
    ends_with_an_error && says 'bad failed in 1 of 3 tests: Suite.First'
}

# timed NAME SECONDS...: leaves NAME.xml with a test that took each of these times, as far as GTEST_FILTER lets them run.
timed() {
    local name=$1 number=0 tests=0 seconds cases='' sum=0
    shift
    for seconds in "$@"; do
        number=$((number + 1))
        case $GTEST_FILTER in
        -*) case :${GTEST_FILTER#-}: in *":$name.Test$number:"*) continue ;; esac ;;
        *) case :$GTEST_FILTER: in *":$name.Test$number:"*) ;; *) continue ;; esac ;;
        esac
        echo "$name.Test$number" >>../run
        tests=$((tests + 1)) sum=$((sum + ${seconds%.*}))
        cases+="    <testcase name=\"Test$number\" status=\"run\" time=\"$seconds\" timestamp=\"\" classname=\"$name\" />"$'\n'
    done
    printf '<?xml version="1.0"?>\n<testsuites tests="%s" failures="0" errors="0" time="%s.5">\n  <testsuite skipped="0">\n%s  </testsuite>\n</testsuites>\n' \
        $tests $sum "$cases" >"$name.xml"
}

SlowTestsTryOnlyWhatTheQuickOnesHaveNotNoticed() {
    local timed
    timed=$(declare -f timed)
    another_module long-replaced "$timed; timed long-replaced 7.25 13.0" mixed-replaced "$timed; timed mixed-replaced 0.01 3.25 0.02" \
        quick-replaced "$timed; timed quick-replaced 0.1"
    # shellcheck disable=SC2016 # expanded by the inner shell
    in_dev eval 'run_mutant "$BUILD/mutants/bin" {long,mixed,quick}-replaced; take_times {long,mixed,quick}-replaced; rm "$BUILD/run"
        quickest_first {long,mixed,quick}-replaced; limit_of mixed-replaced; JOBS=1; run_mutant "$BUILD/mutants/bin" {quick,mixed,long}-replaced'
    [ "$STATUS" -eq 0 ] || because "the status is $STATUS, after: $(tail -n 5 "$WORK/out")" || return
    [ "$(xargs <"$WORK/out")" = "quick-replaced mixed-replaced long-replaced 69" ] || because "the order and limit: $(xargs <"$WORK/out")" || return
    # ctest chooses the order of those that may run side by side.
    { head -n 3 "$WORK/build/run" | LC_ALL=C sort && tail -n +4 "$WORK/build/run"; } | xargs >"$WORK/order"
    [ "$(<"$WORK/order")" = "mixed-replaced.Test1 mixed-replaced.Test3 quick-replaced.Test1 mixed-replaced.Test2 \
long-replaced.Test1 long-replaced.Test2" ] || because "the tests ran as: $(<"$WORK/order")"
}

ASlowProgramRunsOnlyIfTheOnesBeforeItPass() {
    another_module bad-replaced 'result bad-replaced 3 1' slow-replaced 'result slow-replaced 3 0'
    # shellcheck disable=SC2016 # expanded by the inner shell
    in_dev eval 'SLOW[bad-replaced]=a SLOW[slow-replaced]=b QUICK[bad-replaced]=0 QUICK[slow-replaced]=0
        run_mutant "$BUILD/mutants/bin" {bad,slow}-replaced'
    ends_with_an_error && says 'bad failed in 1 of 3 tests' || return
    [ ! -e "$WORK/build/test-results/slow-replaced.status" ] || because "the slow tests were run, too"
}

# mutates TEST: all changes of a module of two lines, which a made-up compiler and linker copy. The shell code TEST is its only test; it
# finds the module in $MODULE.
mutates() {
    local clone=$WORK/clone object=plugins/filter/CMakeFiles/fc_objects.dir/one/a.cpp.obj
    another_module one-replaced "MODULE=\$(<../bin-replaced/fc.dll); $1"
    rm -rf "$clone"
    mkdir -p "$clone"/{plugins/filter/one,tests/one} "$WORK/build/${object%/*}"
    ln -s "$REPOSITORY/scripts" "$clone/"
    printf '%s\n' 'int a = 7;' 'int b = 5;' | tee "$WORK/build/$object" "$WORK/build/bin/fc.dll" >"$clone/plugins/filter/one/a.cpp"
    touch "$WORK/build/bin/fc.pdb" "$WORK/build/mutants/bin/fc.pdb"
    echo 'fc_add_tests(one a.cpp)' >"$clone/tests/one/CMakeLists.txt"
    echo one >"$WORK/build/test-programs.txt"
    printf '%s\n' "${WITHOUT_EFFECT:-}" >"$clone/tests/changes-without-effect.txt"
    cat >"$WORK/compile" <<'TEXT'
#!/bin/bash
while [ "$1" != -o ]; do shift; done
cp "$(sed -n 's/.*"external-contents": "\([^"]*\)".*/\1/p' mutants/overlay.json)" "$2"
TEXT
    cat >"$WORK/link" <<'TEXT'
#!/bin/bash
cp "$1" mutants/bin/fc.dll
touch mutants/bin/fc.pdb
TEXT
    chmod +x "$WORK/compile" "$WORK/link"
    # shellcheck disable=SC2016 # expanded by the inner shell
    in_dev eval 'ROOT=$BUILD/../clone JOBS=1
        objects_with() { echo "'"$object"'"; }
        code_of() { checksum "$1"; }
        ninja() { echo "$BUILD/../compile -o '"$object"' "; echo "$BUILD/../link '"$object"' -o bin/fc.dll "; }
        make_wine_of_mutants() { :; }
        prepare_lanes() { :; }
        run_mutate one 1 60'
}

ASurvivorFailsTheRunThatNamesIt() {
    # shellcheck disable=SC2016 # expanded by the test
    mutates '[[ $MODULE == *"a = 7"* ]] && result one-replaced 1 0 || result one-replaced 1 1'
    ends_with_an_error && says 'caught by one failed in 1 of 1 tests' && says SURVIVED && says '1 of 2 changes were caught, 1 survived (seed 1)' || return
    [ "$(tail -n 2 "$WORK/out")" = $'plugins/filter/one/a.cpp:2: int b = 5;\n    changed to: int b = 6;' ] ||
        because "its end: $(tail -n 2 "$WORK/out")"
}

AChangeWithoutEffectIsNoSurvivor() {
    # shellcheck disable=SC2016 # expanded by the test
    WITHOUT_EFFECT=$'plugins/filter/one/a.cpp: int b = 5;\n    changed to: int b = 6;\n    nobody reads it' \
        mutates '[[ $MODULE == *"a = 7"* ]] && result one-replaced 1 0 || result one-replaced 1 1'
    [ "$STATUS" -eq 0 ] || because "the status is $STATUS, after: $(tail -n 5 "$WORK/out")" || return
    says '1 of 1 changes were caught, 0 survived (seed 1)'
}

AWineThatFailsIsNoTestThatNotices() {
    # shellcheck disable=SC2016 # expanded by the test
    mutates '[[ $MODULE == *"a = 7"* ]] && result one-replaced 1 0 || echo "error: one.exe could not be run: Wine or fc-launch.exe failed"'
    ends_with_an_error && mentions 'one could not be run: see' || return
    ! grep -q 'changes were caught' "$WORK/out" || because "it counts what was caught"
}

TestsThatFailWithTheUnchangedModuleAtTheEndNoticeNothing() {
    # shellcheck disable=SC2016 # expanded by the test
    mutates '[ ! -e ../ran ] && result one-replaced 1 0 || result one-replaced 1 1; touch ../ran'
    ends_with_an_error && mentions 'the tests fail with the unchanged module, too' || return
    ! grep -q 'changes were caught' "$WORK/out" || because "it counts what was caught"
}

OnlyTheTestsOfItsFolderTryAChange() {
    rm -rf "$WORK/build"
    mkdir -p "$WORK/build"
    printf '%s\n' fc-tests removal-tests removal-hang-tests diagnostics-tests devkit-tests >"$WORK/build/test-programs.txt"
    # shellcheck disable=SC2016 # expanded by the inner shell
    in_dev eval 'for folder in Diagnostics WindowsDriverInstaller common ""; do echo "$folder:" $(programs_of "$folder"); done'
    local fc='fc-tests fc-tests-932 fc-tests-65001' diagnostics='diagnostics-tests diagnostics-tests-932 diagnostics-tests-65001'
    says "Diagnostics: $diagnostics" && says 'WindowsDriverInstaller: removal-tests removal-hang-tests' &&
        says "common: $fc removal-tests removal-hang-tests $diagnostics" &&
        says ": $fc removal-tests removal-hang-tests $diagnostics"
}

TheModuleIsReplacedBesideLinksToAllElse() {
    another_module one-replaced 'result one-replaced 1 0'
    echo other >"$WORK/build/covered/fc.dll"
    in_dev replace_module "$WORK/build/covered"
    [ "$(<"$WORK/build/bin-replaced/fc.dll")" = other ] || because "the module is the usual one" || return
    [ "$WORK/build/bin-replaced/one-tests.exe" -ef "$WORK/build/bin/one-tests.exe" ] || because "no link to the program"
}

# covers PROGRAM: with tools of LLVM's that tell of one source; the program leaves a profile.
covers() {
    # shellcheck disable=SC2016 # expanded by the inner shell
    in_dev eval 'llvm-profdata-19() { :; }
        llvm-cov-19() {
            case $* in
            *lcov*) printf "SF:%s/dev\nDA:1,1\nend_of_record\n" "$ROOT" ;;
            export*) echo "{\"data\": [{\"files\": []}]}" ;;
            esac
        }
        OUT=$BUILD/out
        run_coverage '"$1"
}

# shellcheck disable=SC2016 # expanded by the entry
PROFILE='touch ../profiles/fc-1.profraw;'

ACrashFailsTheCoverageThatIsTold() {
    another_module good-replaced "$PROFILE result good-replaced 3 0" crash-replaced "$PROFILE result crash-replaced 3 0; $CRASH crash-at-end"
    covers good
    [ "$STATUS" -eq 0 ] || because "the status is $STATUS: $(tail -n 5 "$WORK/out")" || return
    mentions '100.0 %' || return
    covers crash
    fails crash-replaced 'ended with status 5 after its tests' 3 1 && mentions '100.0 %'
}

CoverageRunsTheTestsUnderTheOtherCodePagesToo() {
    another_module good-replaced "$PROFILE result good-replaced 3 0" good-932-replaced 'result good-932-replaced 2 1' \
        other-932-replaced 'result other-932-replaced 4 1'
    covers good
    fails good-932-replaced 'failed in 1 of 2 tests' 4 1
}

CoverageWithoutAProfileFails() {
    another_module good-replaced 'result good-replaced 3 0'
    covers good
    ends_with_an_error && mentions 'the tests left no profile'
}

# runs_as PROGRAM: puts the program that ends badly in the place of this one of ours in $WORK/build.
runs_as() {
    rm -rf "$WORK/build"
    mkdir -p "$WORK/build/bin"
    cp "$BIN/fc-launch.exe" "$BIN"/lib*.dll "$WORK/build/bin/" 2>/dev/null || true
    cp "$BIN/runner-crash.exe" "$WORK/build/bin/$1"
}

TheCommandReturnsTheStatusOfItsProgram() {
    local status
    runs_as fc-host.exe
    for status in 0 1 2 255; do
        in_dev run_host "$status"
        [ "$STATUS" -eq "$status" ] || because "status $STATUS instead of $status: $(<"$WORK/out")" || return
    done
    in_dev run_host 256
    ends_with_an_error
}

ACrashOfTheHostOrTheBenchmarksIsNoticed() {
    local how
    runs_as fc-host.exe
    cp "$WORK/build/bin/fc-host.exe" "$WORK/build/bin/fc-bench.exe"
    for how in crash crash-at-end; do
        in_dev run_host $how
        ends_with_an_error && says 'error: fc-host.exe crashed: 0xC0000005' || return
        in_dev run_bench $how
        ends_with_an_error && says 'error: fc-bench.exe crashed: 0xC0000005' || return
    done
}

AnOverrunBufferEndsTheProgram() {
    runs_as fc-host.exe
    in_dev run_host overrun
    ends_with_an_error && says 'error: fc-host.exe crashed: 0xC0000409'
}

# Nothing handles the breakpoint.
AScriptThatCrashesTheHostIsNoticed() {
    rm -rf "$WORK/build"
    mkdir -p "$WORK/build"
    ln -s "$BIN" "$WORK/build/bin"
    cat >"$WORK/crash.lua" <<'LUA'
print "the script begins"
io.stdout:flush()
package.loadlib("kernel32.dll", "DebugBreak")()
LUA
    in_dev run_host --quiet "$WORK/crash.lua"
    ends_with_an_error && mentions 'error: fc-host.exe crashed: 0x80000003' && says 'the script begins'
}

AKilledProgramFailsEvenIfItsStatusIsZero() {
    runs_as fc-host.exe
    in_dev run_host vanish
    ends_with_an_error && says 'error: fc-host.exe was ended from outside'
}

AWineThatDoesNothingFails() {
    runs_as fc-host.exe
    RUNNER_WINE=$(command -v true) in_dev run_host 0
    ends_with_an_error && says 'error: fc-host.exe could not be run: Wine or fc-launch.exe failed' || return
    runs_as fc-bench.exe
    RUNNER_WINE=$(command -v true) in_dev run_bench 0
    ends_with_an_error && says 'error: fc-bench.exe could not be run: Wine or fc-launch.exe failed'
}

# fake_wine NAME: a Wine that fails once in the way that NAME says, and then works.
fake_wine() {
    RUNNER_WINE=$WORK/$1
    cat >"$RUNNER_WINE" <<TEXT
#!/usr/bin/env bash
[ -e "$WORK/$1.first" ] && exec "$WINE" "\$@"
touch "$WORK/$1.first"
report=\${2#Z:}
[ $1 != dies-at-work ] || echo -n begun >"\${report//\\\\//}"
TEXT
    chmod +x "$RUNNER_WINE"
}

AWineThatEndsBeforeTheProgramBeginsIsStartedAgain() {
    runs_as fc-host.exe
    fake_wine dies-at-once
    in_dev run_host 7
    unset RUNNER_WINE
    [ "$STATUS" -eq 7 ] || because "the status is $STATUS, after: $(tail -n 12 "$WORK/out")" || return
    says 'warning: Wine ended before fc-host.exe began; starting it again'
}

AWineThatEndsAfterTheProgramHasBegunFails() {
    runs_as fc-host.exe
    fake_wine dies-at-work
    in_dev run_host 0
    unset RUNNER_WINE
    ends_with_an_error && says 'error: fc-host.exe left no status: Wine failed while it ran'
}

# start_loop FILE: runs the host as ./dev does, with a script that never ends, as process LOOP. The script creates the
# file.
start_loop() {
    local script=$1.lua
    printf 'io.open([[%s]], "w"):close()\nwhile true do end\n' "$1" >"$script"
    # shellcheck disable=SC2016 # expanded by the inner shell
    env --default-signal=INT,QUIT bash -c '. "$1/scripts/supervise.sh"; supervise "${@:2}"' supervise "$REPOSITORY" \
        "$REPOSITORY/scripts/run-windows.sh" "$WINE" "$BIN/fc-host.exe" --quiet "$script" >"$WORK/out" 2>&1 </dev/null &
    LOOP=$!
    for ((i = 0; i < 600; i++)); do
        [ ! -e "$1" ] || return 0
        sleep 0.1
    done
    because "the script has not begun: $(<"$WORK/out")"
}

runs() { grep -qszF "$1.lua" /proc/[0-9]*/cmdline; }

# Wine's server, which it may have started, also serves others.
ASignalEndsTheHostAndNoOtherProgramUnderWine() {
    local first signal status
    for signal in TERM INT; do
        start_loop "$WORK/first" || return
        first=$LOOP
        start_loop "$WORK/second" || return
        kill -s $signal "$first"
        status=0
        wait "$first" || status=$?
        [ "$status" -gt 128 ] || because "status $status after $signal: $(<"$WORK/out")" || return
        ! runs "$WORK/first" || because "it runs on after $signal" || return
        runs "$WORK/second" || because "the other program was ended, too" || return
        kill "$LOOP"
        wait "$LOOP" || true
        ! runs "$WORK/second" || because "the second one runs on" || return
        rm -f "$WORK"/{first,second}*
    done
}

# traps_of MODULE: its instructions that nothing but clang's traps uses.
traps_of() { llvm-objdump-19 -d --no-show-raw-insn "$1" | grep -cE '[[:blank:]]ud1l?[[:blank:]]' || true; }

OnlyTheTrappingModuleTrapsUndefinedBehaviour() {
    local trapping shipped
    trapping=$(traps_of "$BIN-trapping/fc.dll") shipped=$(traps_of "$BIN/fc.dll")
    [[ $trapping -ge 500 && $shipped -eq 0 ]] || because "it has $trapping, and the one that ships has $shipped"
}

AMissingProgramFails() {
    runs_as fc-host.exe
    in_dev run_bench 0
    ends_with_an_error && mentions 'error: fc-bench.exe could not be run'
}

# A shell test that ends prematurely leaves no results.
AShellTestThatEndsEarlyFails() {
    # shellcheck disable=SC2016 # expanded by the entry
    entries shell '. "$REPOSITORY/tests/support/shell-tests.sh"
set -e
SUITE=Fake
Fine() { true; }
Ends() { exit 0; }
test_case Fine
test_case Ends
write_results shell shell.xml'
    in_dev run_tests
    fails shell 'left no results (status 0)' 0 1
}

for name in ProgramsThatPassEndWithZero AFailedTestCountsEvenIfItsProgramEndsWithZero AProgramWithoutResultsFails \
    TruncatedResultsFail ResultsWithFewerTestsThanTheyClaimFail ARunWithoutTestsFails \
    AProgramThatFailsAfterItsTestsFails TheResultsOfAnotherEntryDoNotCount ResultsOfAnEarlierRunDoNotCount \
    AProgramThatIsNotRunFails TheOutputOfASlowProgramIsKept TheTemporaryFilesOfAProgramAreRemoved \
    TheNextRunRemovesWhatAKilledOneLeft ATestProgramStaysOnOneProcessorWithAPrefixOfItsOwn \
    AProgramThatNeedsSeveralProcessorsHasAll ACopyOfAPrefixHasARegistryOfItsOwn AnUnknownNameFails \
    AnUnknownNameBesideAKnownOneFails ANameIsNotAPattern RunsUnderLoadAreAddedUpAndPrintTheirSeeds \
    ACrashOfATestProgramIsNoticed AnOverrunBufferEndsTheProgram \
    TheCommandReturnsTheStatusOfItsProgram ACrashOfTheHostOrTheBenchmarksIsNoticed \
    AScriptThatCrashesTheHostIsNoticed AKilledProgramFailsEvenIfItsStatusIsZero \
    AWineThatDoesNothingFails AWineThatEndsBeforeTheProgramBeginsIsStartedAgain AWineThatEndsAfterTheProgramHasBegunFails \
    OnlyTheTrappingModuleTrapsUndefinedBehaviour ASignalEndsTheHostAndNoOtherProgramUnderWine \
    AMissingProgramFails AShellTestThatEndsEarlyFails \
    AChangeThatCrashesTheTestsIsCaught AChangeSurvivesOnlyWholeResults TheTestThatNoticesAChangeIsNamed \
    ASurvivorFailsTheRunThatNamesIt AChangeWithoutEffectIsNoSurvivor AWineThatFailsIsNoTestThatNotices \
    TestsThatFailWithTheUnchangedModuleAtTheEndNoticeNothing \
    SlowTestsTryOnlyWhatTheQuickOnesHaveNotNoticed ASlowProgramRunsOnlyIfTheOnesBeforeItPass \
    OnlyTheTestsOfItsFolderTryAChange TheModuleIsReplacedBesideLinksToAllElse ACrashFailsTheCoverageThatIsTold \
    CoverageRunsTheTestsUnderTheOtherCodePagesToo CoverageWithoutAProfileFails; do
    test_case "$name"
done
write_results runner-tests "$XML"
