#!/usr/bin/env bash
# What ./dev check says of the numbers of deliberate oddities and of events, in a repository of a few lines.
#   rules-tests.sh XML
# The results go to XML, as GoogleTest writes them.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
XML=$1
# shellcheck disable=SC2034 # for shell-tests.sh
SUITE=Rules
WORK=$(mktemp -d -p "${FC_TEMPORARY:-}")
trap 'rm -rf "$WORK"' EXIT
# shellcheck source=tests/support/shell-tests.sh
. "$HERE/../support/shell-tests.sh"
SAID=$WORK/said

# A repository that passes: two oddities, one without a test.
fresh() {
    rm -rf "$WORK/clone"
    mkdir -p "$WORK"/clone/{plugins,interfaces,devkit,tests,bench,examples,docs}
    cd "$WORK/clone"
    git init --quiet
    printf '%s\n' '(void)key.release();  // compat 1: leaves the handle open' '/// compat 2: nothing reads it' >plugins/a.cpp
    printf '%s\n' 'TEST_F(Keys, StayOpen) {' '}' 'TYPED_TEST(Names,' '           AreLong) {' '}' >tests/a.cpp
    # shellcheck disable=SC2016 # the backquotes are Markdown's
    printf '%s\n' '| No. | What | Why | Test |' '|---|---|---|---|' \
        '| 1 | Leaves it open. | *agreed* | `Keys.StayOpen`, `Names.AreLong` |' '| 2 | `Nothing.Reads` it. | *agreed* | no test |' \
        >docs/compatibility.md
    printf '%s\n' 'constexpr int kUpgradeEvent = 1005;' 'constexpr int kFailureEvent = 3005;' >plugins/events.h
    printf '%s\n' 'Language=English' 'It is locked by %1.%0' '.' 'Language=Japanese' '%1' '.' >plugins/Messages.mc
    printf '%s\n' '| 1005 | upgrade |' '| 3005 | failure |' '| 3005 | another |' '> It is locked by NAME.' >docs/support.md
}

check() {
    bash -c 'set -euo pipefail; die() { echo "$*" >&2; exit 1; }; . "$0/../../scripts/rules.sh"; "$@"' \
        "$HERE" "${CHECK:-check_compatibility}" >"$SAID" 2>&1
}
passes() { check || because "it does not pass: $(<"$SAID")"; }
# fails_with TEXT...: and says each of them.
fails_with() {
    if check; then
        because "it passes" || return
    fi
    local text
    for text in "$@"; do
        grep -qF -- "$text" "$SAID" || because "no '$text' in: $(<"$SAID")" || return
    done
}

NumbersOnBothSidesAndTestsThatExistPass() {
    fresh
    passes
}

ANumberThatThePageDoesNotExplainFails() {
    fresh
    echo '// compat 12: surprises' >>plugins/a.cpp
    fails_with 'does not explain' 12
}

ANumberThatTheCodeDoesNotHaveFails() {
    fresh
    sed -i 2d plugins/a.cpp
    fails_with 'the code does not have' 2
}

ANumberThatStandsTwiceOnThePageFails() {
    fresh
    sed -i 's/^| 2 /| 1 /' docs/compatibility.md
    fails_with 'stand twice' 1
}

ATestThatDoesNotExistFails() {
    fresh
    sed -i 's/StayOpen/AreClosed/' tests/a.cpp
    fails_with 'do not exist' Keys.StayOpen
}

APageWithoutRowsFails() {
    fresh
    sed -i 3,4d docs/compatibility.md
    fails_with 'no rows'
}

ACommentThatGivesNoReasonFails() {
    fresh
    echo "// leaves it open; that is kept ""so" >>plugins/a.cpp
    fails_with 'Say why' 'plugins/a.cpp:3'
}

EventsAndMessagesOfThePagePass() {
    fresh
    CHECK=check_support_page passes
}

AnEventThatThePageDoesNotExplainFails() {
    fresh
    sed -i 1d docs/support.md
    CHECK=check_support_page fails_with 'does not explain' 1005
}

AnEventThatTheCodeDoesNotSendFails() {
    fresh
    sed -i 2d plugins/events.h
    CHECK=check_support_page fails_with 'does not send' 3005
}

AMessageThatThePageDoesNotHaveFails() {
    fresh
    sed -i 's/locked by/held by/' docs/support.md
    CHECK=check_support_page fails_with 'does not have' 'It is locked by'
}

for name in NumbersOnBothSidesAndTestsThatExistPass ANumberThatThePageDoesNotExplainFails \
    ANumberThatTheCodeDoesNotHaveFails ANumberThatStandsTwiceOnThePageFails ATestThatDoesNotExistFails APageWithoutRowsFails \
    ACommentThatGivesNoReasonFails EventsAndMessagesOfThePagePass AnEventThatThePageDoesNotExplainFails \
    AnEventThatTheCodeDoesNotSendFails AMessageThatThePageDoesNotHaveFails; do
    test_case "$name"
done
write_results rules-tests "$XML"
