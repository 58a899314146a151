#!/usr/bin/env bash
# What the rules of ./dev check say of a broken repository of a few lines: of includes between folders, and of the numbers of
# deliberate oddities and of events.
#   rules-tests.sh XML
# The results go to XML, as GoogleTest writes them.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
XML=$1
# shellcheck source=tests/support/shell-tests.sh
. "$HERE/../support/shell-tests.sh" Rules
SAID=$WORK/said

empty_clone() {
    rm -rf "$WORK/clone"
    mkdir -p "$WORK"/clone/{plugins,interfaces,devkit,tests,bench,examples,docs}
    cd "$WORK/clone"
    git init --quiet
}

# A repository that passes: two oddities, one without a test.
fresh() {
    empty_clone
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
# fails_with TEXT...: and prints each of them.
fails_with() {
    if check; then
        because "it passes" || return
    fi
    local text
    for text in "$@"; do
        grep -qF -- "$text" "$SAID" || because "no '$text' in: $(<"$SAID")" || return
    done
}

MatchingNumbersAndExistingTestsPass() {
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

ADuplicateNumberOnThePageFails() {
    fresh
    sed -i 's/^| 2 /| 1 /' docs/compatibility.md
    fails_with 'stand twice' 1
}

AMissingTestFails() {
    fresh
    sed -i 's/StayOpen/AreClosed/' tests/a.cpp
    fails_with 'do not exist' Keys.StayOpen
}

APageWithoutRowsFails() {
    fresh
    sed -i 3,4d docs/compatibility.md
    fails_with 'no rows'
}

ACommentWithoutAReasonFails() {
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

# file PATH LINE...
file() {
    local path=plugins/filter/$1
    shift
    mkdir -p "$(dirname "$path")"
    printf '%s\n' "$@" >"$path"
}

# A module with includes in the right direction.
fresh_folders() {
    empty_clone
    file common/Trace.h '#include "vti.h"'
    file Subject/Subject.h '#include <windows.h>'
    file Subject/parts/Part.h ''
    file Subject/parts/Part.cpp '#include "Part.h"' '#include "../Subject.h"' '#include "common/Trace.h"'
    file Subject/Subject.cpp '#include "Subject.h"' '#include "parts/Part.h"' '#include "Subject/parts/Part.h"'
    file Other/Other.h ''
    file fc/Table.cpp '#include "Subject/Subject.h"' '#include "common/Trace.h"'
}

# finds TEXT: and nothing else.
finds() {
    CHECK=check_includes fails_with "plugins/filter/$1" || return
    [[ $(<"$SAID") == "plugins/filter/$1"* && $(wc -l <"$SAID") -eq 1 ]] || because "found: $(<"$SAID")"
}

IncludesInTheRightDirectionPass() {
    fresh_folders
    CHECK=check_includes passes
}

CommonIncludesNoOtherFolder() {
    local header
    for header in Subject/Subject.h ../Subject/Subject.h; do
        fresh_folders
        file common/Text.cpp "#include \"$header\""
        finds "common/Text.cpp includes $header: common uses none of the other folders" || return
    done
}

ASubjectIncludesNoOtherSubject() {
    fresh_folders
    file Subject/parts/Part.cpp '#include "Other/Other.h"'
    finds 'Subject/parts/Part.cpp includes Other/Other.h: a subject uses common alone'
}

ASubjectDoesNotIncludeTheEntry() {
    fresh_folders
    file fc/fc.h ''
    file Subject/Subject.cpp '#include "fc/fc.h"'
    finds 'Subject/Subject.cpp includes fc/fc.h: a subject uses common alone'
}

TheEntryIncludesOnlyTheHeaderNamedAfterASubject() {
    fresh_folders
    file fc/Table.cpp '#include "Subject/parts/Part.h"'
    finds 'fc/Table.cpp includes Subject/parts/Part.h: include Subject/Subject.h'
}

for name in MatchingNumbersAndExistingTestsPass ANumberThatThePageDoesNotExplainFails \
    ANumberThatTheCodeDoesNotHaveFails ADuplicateNumberOnThePageFails AMissingTestFails APageWithoutRowsFails \
    ACommentWithoutAReasonFails EventsAndMessagesOfThePagePass AnEventThatThePageDoesNotExplainFails \
    AnEventThatTheCodeDoesNotSendFails AMessageThatThePageDoesNotHaveFails \
    IncludesInTheRightDirectionPass CommonIncludesNoOtherFolder ASubjectIncludesNoOtherSubject ASubjectDoesNotIncludeTheEntry \
    TheEntryIncludesOnlyTheHeaderNamedAfterASubject; do
    test_case "$name"
done
write_results rules-tests "$XML"
