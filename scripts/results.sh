# shellcheck shell=bash
# Evaluates the results that ctest's entries leave in a folder: ENTRY.xml, ENTRY.log and ENTRY.status.

TEST_SECONDS=${FC_TEST_SECONDS:-1200} # for each entry

# count_results XML: prints how many tests there were, how many failed and how many were skipped. Returns false if the
# file is missing or incomplete.
count_results() {
    [ -s "$1" ] || return 1
    awk '
        function field(name) { return match($0, " " name "=\"[0-9]+\"") ? substr($0, RSTART + length(name) + 3, RLENGTH - length(name) - 4) : 0 }
        /^ *<testsuites / { tests += field("tests"); failed += field("failures") + field("errors") }
        /^ *<testsuite / { skipped += field("skipped") }
        /^ *<testcase / { cases++ }
        NF { last = $0 }
        END {
            if (last !~ /<\/testsuites>[[:space:]]*$/ || cases + 0 != tests || failed + skipped > tests)
                exit 1
            print tests + 0, failed + 0, skipped + 0
        }' "$1"
}

# fault_of RESULT: what is wrong with RESULT.xml and RESULT.status; nothing if the tests ran and passed.
fault_of() {
    local status counts tests failed
    [ -s "$1.status" ] || {
        echo "was not run"
        return
    }
    status=$(<"$1.status")
    if [ "$status" -eq 124 ] || [ "$status" -eq 137 ]; then
        echo "was killed after $TEST_SECONDS s"
    elif [ ! -s "$1.xml" ]; then
        echo "left no results (status $status)"
    elif ! counts=$(count_results "$1.xml"); then
        echo "left incomplete results (status $status)"
    else
        read -r tests failed _ <<<"$counts"
        if [ "$tests" -eq 0 ]; then
            echo "ran no tests"
        elif [ "$failed" -gt 0 ]; then
            echo "failed in $failed of $tests tests"
        elif [ "$status" -ne 0 ]; then
            echo "ended with status $status after its tests"
        fi
    fi
}

# end_of_output LOG: without the many lines of Wine's debugger about a crash, which would hide the program's own.
end_of_output() {
    sed '/^Register dump:/,/^ *Host version:/d; s/^/    /' "$1" | tail -n 20
}

# tell_results FOLDER ENTRY...: prints what is wrong with an entry and the end of its output, then the totals. Returns
# false if anything is wrong.
tell_results() {
    local folder=$1 entry fault tests failed skipped status=0 all=(0 0 0)
    shift
    for entry in "$@"; do
        fault=$(fault_of "$folder/$entry")
        read -r tests failed skipped <<<"$(count_results "$folder/$entry.xml" || echo 0 0 0)"
        all[0]=$((all[0] + tests - failed - skipped))
        if [ -n "$fault" ]; then
            status=1
            # A program without a result counts as one test.
            [ "$failed" -gt 0 ] || failed=1
            echo "error: $entry $fault; its output ends with:"
            [ ! -f "$folder/$entry.log" ] || end_of_output "$folder/$entry.log"
        fi
        all[1]=$((all[1] + failed)) all[2]=$((all[2] + skipped))
    done
    echo "${all[0]} passed, ${all[1]} failed, ${all[2]} skipped"
    return $status
}
