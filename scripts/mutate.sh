# shellcheck shell=bash
# Random single changes of the module, each run against the tests of its folder: whether they notice.

MUTANTS=$BUILD/mutants # drawn/ is what scripts/mutations.py has drawn, bin/ the changed module, wine/ a prefix of its own
OBJECTS=plugins/filter/CMakeFiles/fc_objects.dir
# Of each entry with the unchanged module: its seconds, its tests that took long, and the number of the others.
declare -A TOOK=() SLOW=() QUICK=()
SLOW_SECONDS=0.5

# objects_with PATH: the objects of the module that are made from this file.
objects_with() {
    ninja -C "$BUILD" -t deps 2>/dev/null | awk -v objects="$OBJECTS/" -v file="    $ROOT/$1" '
        /^[^ ]/ { object = index($0, objects) == 1 && match($0, /\.obj: #deps/) ? substr($0, 1, RSTART + 3) : "" }
        $0 == file && object { print object }'
}

# overlay PATH SOURCE: for the compiler, which then reads the source where it looks for the path.
overlay() {
    cat <<TEXT
{"version": 0, "use-external-names": false, "roots": [{"type": "directory", "name": "$ROOT/${1%/*}",
 "contents": [{"type": "file", "name": "${1##*/}", "external-contents": "$2"}]}]}
TEXT
}

# build_changed DRAWN: leaves the module with this change in bin/, by the commands of the usual build. Returns false if the change
# can't be compiled. SAME tells whether the code is what it was.
build_changed() {
    local path object objects made link compile
    path=$(<"$1/path")
    overlay "$path" "$1/source" >"$MUTANTS/overlay.json"
    rm -rf "$MUTANTS/objects" "$MUTANTS/bin"
    mkdir -p "$MUTANTS/objects" "$MUTANTS/bin"
    mapfile -t objects < <(objects_with "$path")
    [ ${#objects[@]} -gt 0 ] || die "no object of the module is made from $path"
    link=$(grep -E -- ' -o bin/fc\.dll ' "$MUTANTS/commands")
    link=${link//bin\/fc.dll/mutants/bin/fc.dll}
    link=${link//plugins\/filter\/libfc.dll.a/mutants/libfc.dll.a}
    for object in "${objects[@]}"; do
        made=$(changed_object "$object")
        # The warnings of the usual build may be errors.
        compile=$(grep -F -- " -o $object " "$MUTANTS/commands")
        echo "${compile//$object/$made} -w -ivfsoverlay mutants/overlay.json"
        link=${link//$object/$made}
    done >"$MUTANTS/compilations"
    (cd "$BUILD" && xargs -d '\n' -n 1 -P "$JOBS" bash -c 'eval "$1" || exit 255' compile <mutants/compilations) >"$LOGS/mutant.log" 2>&1 || return
    SAME=1
    for object in "${objects[@]}"; do
        [ "$(code_of "$BUILD/$object")" = "$(code_of "$BUILD/$(changed_object "$object")")" ] || SAME=0
    done
    (cd "$BUILD" && eval "$link") >"$LOGS/mutant.log" 2>&1 || die "the changed module can't be linked; see $LOGS/mutant.log"
}

# changed_object OBJECT: where it is made with the change, from the build folder.
changed_object() { echo "mutants/objects/${1//\//-}"; }

# code_of OBJECT: a checksum of it without what debuggers read.
code_of() { llvm-objcopy-19 --strip-debug "$1" "$MUTANTS/stripped.obj" && checksum "$MUTANTS/stripped.obj"; }

# programs_of FOLDER: the test programs of that folder, and their runs under other code pages; of common and of the whole module all those
# of the module.
programs_of() {
    local program where=("$ROOT/tests/${1:-common}/CMakeLists.txt")
    [ -f "${where[0]}" ] || where=("$ROOT"/tests/{fc,Diagnostics,SystemHealth,WindowsDriverInstaller,WindowsFirewall}/CMakeLists.txt)
    while read -r program; do
        grep -qw -- "fc_add_[a-z_]*tests($program" "${where[@]}" || continue
        echo "$program"
        ! grep -qw -- "fc_add_code_page_runs($program" "${where[@]}" || printf '%s\n' "$program"-{932,65001}
    done <"$BUILD/test-programs.txt"
}

# run_mutant FOLDER ENTRY...: whether all tests pass with the module of that folder. Runs the quick tests of all entries, then the slow ones in
# the order given: half of the entries that are left, at most as many as there are processors, and more only if these pass. Prints what fails
# first.
run_mutant() {
    local entry count quick=() slow=()
    replace_module "$1"
    shift
    for entry in "$@"; do
        [ "${QUICK[$entry]:-}" = 0 ] || quick+=("$entry")
        [ -z "${SLOW[$entry]:-}" ] || slow+=("$entry")
    done
    if [ ${#quick[@]} -gt 0 ]; then pass_with_mutant "-$(all_slow)" "${quick[@]}" || return; fi
    set -- "${slow[@]}"
    while [ $# -gt 0 ]; do
        count=$((($# + 1) / 2))
        [ "$count" -le "$JOBS" ] || count=$JOBS
        pass_with_mutant "$(all_slow)" "${@:1:count}" || return
        shift "$count"
    done
}

# all_slow: the slow tests of all entries, as GTEST_FILTER takes them.
all_slow() { (IFS=: && echo "${SLOW[*]}"); }

# pass_with_mutant FILTER ENTRY...: whether these tests pass, entries side by side. No result file, no pass: a crash or an early end is a failure.
# Returns 2 if they could not be run.
pass_with_mutant() {
    local results=$BUILD/test-results filter=$1 entry fault TEST_SECONDS=$TEST_SECONDS
    shift
    [ ${#TOOK[@]} -eq 0 ] || TEST_SECONDS=$(limit_of "$@")
    rm -rf "$results"
    mkdir -p "$results"
    env --default-signal=INT,QUIT FC_TEST_SECONDS="$TEST_SECONDS" GTEST_FILTER="$filter" GTEST_FAIL_FAST=1 "${CTEST[@]}" -C Replaced -R "^($(
        IFS='|'
        echo "$*"
    ))\$" -j "$JOBS" --stop-on-failure --no-tests=error --timeout $((TEST_SECONDS + 60)) >"$LOGS/mutant-tests.log" 2>&1 || true
    for entry in "$@"; do
        fault=$(fault_of "$results/$entry")
        ! grep -qsF "could not be run: Wine" "$results/$entry.log" || {
            echo "${entry%-replaced} could not be run"
            return 2
        }
        [ -z "$fault" ] || [ "$fault" = "was not run" ] || {
            echo "${entry%-replaced} $fault$(first_failure "$results/$entry.log")"
            return 1
        }
    done
    for entry in "$@"; do
        [ -z "$(fault_of "$results/$entry")" ] || {
            echo "${entry%-replaced} was not run"
            return 2
        }
    done
}

# take_times ENTRY...: what they and their tests took in the last run.
take_times() {
    local entry xml
    for entry in "$@"; do
        xml=$BUILD/test-results/$entry.xml
        TOOK[$entry]=$(sed -n 's/^<testsuites .* time="\([0-9]*\).*/\1/p' "$xml")
        SLOW[$entry]=$(sed -n 's/^ *<testcase name="\([^"]*\)".* time="\([0-9.]*\)".* classname="\([^"]*\)".*/\2 \3.\1/p' "$xml" |
            awk -v most="$SLOW_SECONDS" '$1 > most { printf "%s%s", separator, $2; separator = ":" }')
        QUICK[$entry]=$(($(grep -c '^ *<testcase ' "$xml") - $(tr ':' '\n' <<<"${SLOW[$entry]}" | grep -c . || true)))
    done
}

# quickest_first ENTRY...: by their times.
quickest_first() {
    local entry
    for entry in "$@"; do echo "${TOOK[$entry]} $entry"; done | LC_ALL=C sort -n | cut -d ' ' -f 2
}

# limit_of ENTRY...: after so many seconds a change counts as caught by them: it may make a loop endless.
limit_of() {
    local entry longest=0
    for entry in "$@"; do [ "${TOOK[$entry]}" -le "$longest" ] || longest=${TOOK[$entry]}; done
    echo $((60 + 3 * longest))
}

# first_failure LOG: the name of the test.
first_failure() { sed -n 's/^\[  FAILED  \] \([A-Za-z0-9_/.]*\).*/: \1/p' "$1" | head -n 1; }

# try_mutant DRAWN ENTRY...: this change. Tells how it ended in OUTCOME: invalid, same, caught or survived.
try_mutant() {
    local drawn=$1 reason status=0
    shift
    OUTCOME=invalid
    build_changed "$drawn" || return 0
    OUTCOME=same
    [ "$SAME" = 0 ] || return 0
    reason=$(run_mutant "$MUTANTS/bin" "$@") || status=$?
    case $status in
    0) OUTCOME=survived && echo SURVIVED ;;
    1) OUTCOME=caught && echo "caught by $reason" ;;
    *) die "$reason: see $LOGS/mutant-tests.log" ;;
    esac
    cat "$drawn/what"
}

# make_wine_of_mutants: a change may spoil what the tests do to the machine, so it is a Wine prefix that nobody else uses.
make_wine_of_mutants() {
    export WINEPREFIX=$MUTANTS/wine
    mkdir -p "$MUTANTS"
    prefix_is_ready || quietly wineboot.log "creating a Wine prefix for the changed module" make_wine_prefix
}

# run_mutate FOLDER SEED COUNT: so many changes of the sources in that folder below plugins/filter. Returns false if one survives.
run_mutate() {
    local folder=$1 seed=$2 count=$3 files entries number tried=0 survived=() fault
    [ -d "$ROOT/plugins/filter/$folder" ] || die "there is no folder '$folder' below plugins/filter"
    mapfile -t files < <(cd "$ROOT" && find "plugins/filter/$folder" -name '*.cpp' -o -name '*.h' | LC_ALL=C sort)
    [ ${#files[@]} -gt 0 ] || die "plugins/filter/$folder has no sources"
    mapfile -t entries < <(programs_of "${folder%%/*}")
    mapfile -t entries < <(replaced_entries "${entries[@]}")
    make_wine_of_mutants
    prepare_lanes 1
    ninja -C "$BUILD" -t commands bin/fc.dll >"$MUTANTS/commands"
    say "testing the unchanged module: ${entries[*]%-replaced}"
    fault=$(run_mutant "$BUILD/bin" "${entries[@]}") || die "the tests fail with the unchanged module: $fault"
    take_times "${entries[@]}"
    mapfile -t entries < <(quickest_first "${entries[@]}")
    rm -rf "$MUTANTS/drawn"
    # Some can't be compiled, and some change nothing.
    (cd "$ROOT" && scripts/mutations.py --seed "$seed" --count $((3 * count + 10)) --to "$MUTANTS/drawn" \
        --leave-out tests/changes-without-effect.txt "${files[@]}")
    for ((number = 1; tried < count; number++)); do
        [ -d "$MUTANTS/drawn/$number" ] || break
        try_mutant "$MUTANTS/drawn/$number" "${entries[@]}"
        case $OUTCOME in
        caught) tried=$((tried + 1)) ;;
        survived) tried=$((tried + 1)) survived+=("$number") ;;
        esac
    done
    [ "$tried" -eq 0 ] || fault=$(run_mutant "$BUILD/bin" "${entries[@]}") ||
        die "now the tests fail with the unchanged module, too, so what was caught means nothing: $fault"
    tell_survivors "$tried" "$seed" "${survived[@]}"
}

# tell_survivors TRIED SEED NUMBER...: once more what no test has noticed.
tell_survivors() {
    local tried=$1 seed=$2 number
    shift 2
    [ "$tried" -gt 0 ] || die "no change could be tried"
    echo "$((tried - $#)) of $tried changes were caught, $# survived (seed $seed)"
    for number in "$@"; do cat "$MUTANTS/drawn/$number/what"; done
    [ $# -eq 0 ]
}
