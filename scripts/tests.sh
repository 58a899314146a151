# shellcheck shell=bash
# Running the tests, and saying how they went.

# ctest_entries OPTIONS...: the names of its tests, those included that others need.
ctest_entries() { ctest --test-dir "$BUILD" -N "$@" | sed -n 's/^ *Test *#[0-9]*: //p'; }

# run_tests [PROGRAM...]: all test programs, or the named ones. The results that they leave tell how it went; ctest
# itself knows only what scripts/run-apart.sh has found in them.
run_tests() {
    local results=$BUILD/test-results filter=() status=0 entries
    rm -rf "$results"
    mkdir -p "$results"
    [ $# -eq 0 ] || filter=(-R "^($(
        IFS='|'
        echo "$*"
    ))\$")
    mapfile -t entries < <(ctest_entries "${filter[@]}")
    [ ${#entries[@]} -gt 0 ] || die "no test program is called '$*'; there are: $(ctest_entries | tr '\n' ' ')"
    say "testing"
    ctest --test-dir "$BUILD" --output-on-failure --no-tests=error -j "$JOBS" --timeout $((TEST_SECONDS + 60)) \
        "${filter[@]}" || status=$?
    tell_results "$results" "${entries[@]}" || status=1
    return "$status"
}
