# shellcheck shell=bash
# Running the tests, and saying how they went.

# Sums the results that the test programs have left as XML. A program that left none has crashed.
sum_results() {
    local expected=$1 folder=$2 programs
    programs=$(find "$folder" -name '*.xml' | wc -l)
    cat "$folder"/*.xml /dev/null | awk -v crashed=$((expected - programs)) '
        function field(name) { return match($0, " " name "=\"[0-9]+\"") ? substr($0, RSTART + length(name) + 3, RLENGTH - length(name) - 4) : 0 }
        /<testsuites / { tests += field("tests"); failed += field("failures") + field("errors") }
        /<testsuite / { skipped += field("skipped") }
        END {
            if (crashed > 0) printf "%d test programs ended without a result\n", crashed
            printf "%d passed, %d failed, %d skipped\n", tests - failed - skipped, failed + crashed, skipped
        }'
}

# run_tests [PROGRAM...]: all test programs, or the named ones.
run_tests() {
    local results=$BUILD/test-results filter=() status=0 expected
    rm -rf "$results"
    mkdir -p "$results"
    [ $# -eq 0 ] || filter=(-R "^($(
        IFS='|'
        echo "$*"
    ))\$")
    expected=$(ctest --test-dir "$BUILD" -N "${filter[@]}" | awk '/^Total Tests:/ { print $3 }')
    [ "${expected:-0}" -gt 0 ] || die "no test program is called '$*'; there are: $(ctest --test-dir "$BUILD" -N | awk -F': ' '/Test +#/ { printf "%s ", $2 }')"
    say "testing"
    ctest --test-dir "$BUILD" --output-on-failure --no-tests=error -j "$JOBS" --timeout 600 "${filter[@]}" || status=$?
    sum_results "$expected" "$results"
    return "$status"
}
