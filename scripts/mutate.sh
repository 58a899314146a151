# shellcheck shell=bash
# Random single changes of the module, each run against the tests of its folder: whether they bite.

MUTANTS=$BUILD/mutants # source/ is a copy of the sources, build/ its build, drawn/ what scripts/mutations.py has drawn

# copy_sources: what the module is built from. A file keeps its time while it is the same, so that only a change is compiled.
copy_sources() {
    local file
    mkdir -p "$MUTANTS/source"
    for file in CMakeLists.txt bench cmake devkit interfaces plugins; do
        (cd "$ROOT" && find "$file" -type f -print0) | while IFS= read -r -d '' file; do
            cmp -s "$ROOT/$file" "$MUTANTS/source/$file" || install -D -m 644 "$ROOT/$file" "$MUTANTS/source/$file"
        done
    done
}

# build_copy: the module of the copy. Returns false if it can't be compiled.
build_copy() { ninja -C "$MUTANTS/build" -j "$JOBS" fc >"$LOGS/mutant.log" 2>&1; }

configure_copy() {
    [ -f "$MUTANTS/build/build.ninja" ] || quietly configure-mutants.log "configuring a copy" cmake -G Ninja \
        -S "$MUTANTS/source" -B "$MUTANTS/build" -DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DFC_LIBRARIES="$(libraries_dir)" -DFC_HEADERS="$(headers_dir)" -DBUILD_TESTING=OFF
}

# programs_of FOLDER: the test programs of that folder; of common and of the whole module all those of the module.
programs_of() {
    local program where=("$ROOT/tests/${1:-common}/CMakeLists.txt")
    [ -f "${where[0]}" ] || where=("$ROOT"/tests/{fc,Diagnostics,SystemHealth,WindowsDriverInstaller,WindowsFirewall}/CMakeLists.txt)
    while read -r program; do
        ! grep -qw -- "_tests($program" "${where[@]}" || echo "$program"
    done <"$BUILD/test-programs.txt"
}

# run_mutant ENTRY...: whether all tests pass with the module of the copy. Prints what fails first. No result file, no pass: a crash or
# an early end is a failure.
run_mutant() {
    local results=$BUILD/test-results entry fault
    replace_module "$MUTANTS/build/bin"
    rm -rf "$results"
    mkdir -p "$results"
    env --default-signal=INT,QUIT GTEST_FAIL_FAST=1 "${CTEST[@]}" -C Replaced -R "^($(
        IFS='|'
        echo "$*"
    ))\$" -j "$JOBS" --stop-on-failure --no-tests=error --timeout $((TEST_SECONDS + 60)) >"$LOGS/mutant-tests.log" 2>&1 || true
    for entry in "$@"; do
        fault=$(fault_of "$results/$entry")
        [ -z "$fault" ] || [ "$fault" = "was not run" ] || {
            echo "${entry%-replaced} $fault$(first_failure "$results/$entry.log")"
            return 1
        }
    done
    for entry in "$@"; do
        [ -z "$(fault_of "$results/$entry")" ] || {
            echo "$entry was not run"
            return 1
        }
    done
}

# first_failure LOG: the name of the test.
first_failure() { sed -n 's/^\[  FAILED  \] \([A-Za-z0-9_/.]*\).*/: \1/p' "$1" | head -n 1; }

# try_mutant FOLDER ENTRY...: the change in that folder of drawn/. Tells how it ended in OUTCOME: invalid, same, caught or survived.
try_mutant() {
    local drawn=$1 path copy object before reason
    shift
    path=$(<"$drawn/path") copy=$MUTANTS/source/$path
    object=$MUTANTS/build/plugins/filter/CMakeFiles/fc_objects.dir/${path#plugins/filter/}.obj
    before=$(code_of "$object")
    cp "$drawn/source" "$copy"
    if ! build_copy; then
        OUTCOME=invalid
    elif [[ $path == *.cpp && $(code_of "$object") == "$before" ]]; then
        OUTCOME=same
    elif reason=$(run_mutant "$@"); then
        OUTCOME=survived
    else
        OUTCOME=caught
    fi
    cp "$ROOT/$path" "$copy"
    case $OUTCOME in caught) printf 'caught by %s\n' "$reason" ;; survived) echo SURVIVED ;; *) return 0 ;; esac
    cat "$drawn/what"
}

# code_of OBJECT: a checksum of it without what debuggers read.
code_of() {
    [ -f "$1" ] || return 0
    llvm-objcopy-19 --strip-debug "$1" "$MUTANTS/stripped.obj" && checksum "$MUTANTS/stripped.obj"
}

# make_wine_of_mutants: a change may spoil what the tests do to the machine, so it is a Wine prefix that nobody else uses.
make_wine_of_mutants() {
    export WINEPREFIX=$MUTANTS/wine
    mkdir -p "$MUTANTS"
    prefix_is_ready || quietly wineboot.log "creating a Wine prefix for the changed module" make_wine_prefix
}

# run_mutate FOLDER SEED COUNT: so many changes of the sources in that folder below plugins/filter. Returns false if one survives.
run_mutate() {
    local folder=$1 seed=$2 count=$3 files entries number tried=0 started survived=() outcomes
    [ -d "$ROOT/plugins/filter/$folder" ] || die "there is no folder '$folder' below plugins/filter"
    mapfile -t files < <(cd "$ROOT" && find "plugins/filter/$folder" -name '*.cpp' -o -name '*.h' | LC_ALL=C sort)
    [ ${#files[@]} -gt 0 ] || die "plugins/filter/$folder has no sources"
    mapfile -t entries < <(programs_of "${folder%%/*}")
    mapfile -t entries < <(replaced_entries "${entries[@]}")
    make_wine_of_mutants
    copy_sources
    configure_copy
    say "building the copy"
    build_copy || die "the copy can't be built; see $LOGS/mutant.log"
    say "testing the copy as it is: ${entries[*]%-replaced}"
    started=$SECONDS
    outcomes=$(run_mutant "${entries[@]}") || die "the tests fail with the unchanged module: $outcomes"
    # A change may make a loop endless.
    TEST_SECONDS=$((60 + 3 * (SECONDS - started)))
    export FC_TEST_SECONDS=$TEST_SECONDS
    rm -rf "$MUTANTS/drawn"
    # Some can't be compiled, and some change nothing.
    (cd "$ROOT" && scripts/mutations.py --seed "$seed" --count $((3 * count + 10)) --to "$MUTANTS/drawn" "${files[@]}")
    for ((number = 1; tried < count; number++)); do
        [ -d "$MUTANTS/drawn/$number" ] || break
        try_mutant "$MUTANTS/drawn/$number" "${entries[@]}"
        case $OUTCOME in
        caught) tried=$((tried + 1)) ;;
        survived) tried=$((tried + 1)) survived+=("$number") ;;
        esac
    done
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
