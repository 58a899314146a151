# shellcheck shell=bash
# Tests in shell: a function for each, and results as GoogleTest writes them.
#   . shell-tests.sh SUITE, then test_case FUNCTION for each test, then write_results PROGRAM XML.

SUITE=$1
# A folder for the tests, removed at the end.
WORK=$(mktemp -d -p "${FC_TEMPORARY:-}")
trap 'rm -rf "$WORK"' EXIT

RESULTS=() FAILED=0
REASON=''

# because TEXT...: records why the test fails. A failure does not end a function by itself: `|| because ... || return`.
because() {
    REASON=$*
    echo "  $REASON" >&2
    return 1
}

# test_case NAME: runs the function of that name, which returns false after `because`.
test_case() {
    local started=$SECONDS escaped
    REASON='a command failed'
    echo "[ RUN      ] $SUITE.$1"
    if "$1"; then
        echo "[       OK ] $SUITE.$1"
        RESULTS+=("<testcase name=\"$1\" classname=\"$SUITE\" status=\"run\" time=\"$((SECONDS - started))\"/>")
    else
        echo "[  FAILED  ] $SUITE.$1"
        FAILED=$((FAILED + 1))
        escaped=$(printf '%s' "$REASON" | sed 's/&/\&amp;/g; s/</\&lt;/g; s/"/\&quot;/g')
        RESULTS+=("<testcase name=\"$1\" classname=\"$SUITE\" status=\"run\">
<failure message=\"$escaped\"/></testcase>")
    fi
}

# write_results PROGRAM XML: returns false if a test has failed.
write_results() {
    local counts="tests=\"${#RESULTS[@]}\" failures=\"$FAILED\" errors=\"0\""
    {
        echo '<?xml version="1.0" encoding="UTF-8"?>'
        echo "<testsuites $counts name=\"$1\">"
        echo "<testsuite name=\"$SUITE\" $counts skipped=\"0\">"
        printf '%s\n' "${RESULTS[@]}"
        echo '</testsuite></testsuites>'
    } >"$2"
    [ "$FAILED" -eq 0 ]
}
