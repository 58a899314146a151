# shellcheck shell=bash
# Running the tests and reporting the results.

# ctest_entries OPTIONS...: the names of its tests, including those that others need.
CTEST=(ctest --test-dir "$BUILD")
ctest_entries() { "${CTEST[@]}" -N "$@" | sed -n 's/^ *Test *#[0-9]*: //p'; }

# remove_left_temporaries FOLDER: the temporary folders of a run that was killed.
remove_left_temporaries() {
    local file
    for file in "$1"/*.temporary; do
        [ ! -s "$file" ] || rm -rf "$(<"$file")"
    done
}

# Not empty: the tests run without lanes, on all processors.
ANYWHERE=''

# run_tests [PROGRAM...]: all test programs, or the named ones. Their result files decide; ctest itself knows only what
# scripts/run-apart.sh found in them.
run_tests() {
    local results=$BUILD/test-results filter=() status=0 entries known name
    mapfile -t known < <(ctest_entries)
    for name in "$@"; do
        printf '%s\n' "${known[@]}" | grep -qxF -- "$name" ||
            die "no test program is called '$name'; there are: ${known[*]}"
    done
    remove_left_temporaries "$results"
    rm -rf "$results"
    mkdir -p "$results"
    [ $# -eq 0 ] || filter=(-R "^($(
        IFS='|'
        echo "$*"
    ))\$")
    mapfile -t entries < <(ctest_entries "${filter[@]}")
    say "testing"
    [ -n "$ANYWHERE" ] || prepare_lanes 3
    # Three times as many as processors: most of them often wait for Wine's server. Without --default-signal no test could try
    # Ctrl-C.
    env --default-signal=INT,QUIT "${CTEST[@]}" --output-on-failure --no-tests=error -j $((3 * JOBS)) \
        --timeout $((TEST_SECONDS + 60)) "${filter[@]}" &
    wait_telling $! "testing" || status=$?
    tell_results "$results" "${entries[@]}" || status=1
    return "$status"
}

# The seed with which each program shuffled its tests; --gtest_random_seed repeats the order.
tell_seeds() {
    local file
    echo "seeds:$(for file in "$BUILD"/test-results/*.xml; do
        sed -n 's/^<testsuites.* random_seed="\([0-9]*\)".*/\1/p' "$file" | sed "s/^/ $(basename "$file" .xml)=/"
    done | tr -d '\n')"
}

# run_under_load RUNS [PROGRAM...]: runs the tests that many times, in a different order each time and with more random
# tries, on all processors and beside six busy loops, so that tests that depend on which thread comes first fail. The loops have a separate
# session, like another terminal's: Linux shares the processors between sessions, and in the tests' session they would
# mostly starve Wine's server.
run_under_load() {
    local runs=$1 status=0 loops i
    shift
    # Until this ./dev is gone, however it ends.
    setsid bash -c 'for _ in {1..6}; do while [ -d "/proc/$0" ]; do for ((n = 0; n < 100000; n++)); do :; done; done & done; wait' $$ \
        7>&- 8>&- 9>&- &
    loops=$!
    ANYWHERE=1
    export FC_THOROUGH=1 FC_TEST_SECONDS=${FC_TEST_SECONDS:-3600}
    TEST_SECONDS=$FC_TEST_SECONDS
    for ((i = 1; i <= runs; i++)); do
        say "run $i of $runs, beside 6 busy loops"
        run_tests "$@" || status=1
        tell_seeds
    done
    kill -- "-$loops" 2>/dev/null || true
    return "$status"
}
