#!/usr/bin/env bash
# Whether the rules of the house find what breaks them, in a small clone that is made up.
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
# shellcheck source=scripts/rules.sh
. "$HERE/../../scripts/rules.sh"

SAID=$WORK/said
git init --quiet "$WORK/clone"
cd "$WORK/clone"

# file PATH LINE...
file() {
    local path=plugins/filter/$1
    shift
    mkdir -p "$(dirname "$path")"
    printf '%s\n' "$@" >"$path"
}

# A module with arrows that go the right way.
fresh() {
    rm -rf plugins
    file common/Trace.h '#include "vti.h"'
    file Subject/Subject.h '#include <windows.h>'
    file Subject/parts/Part.h ''
    file Subject/parts/Part.cpp '#include "Part.h"' '#include "../Subject.h"' '#include "common/Trace.h"'
    file Subject/Subject.cpp '#include "Subject.h"' '#include "parts/Part.h"' '#include "Subject/parts/Part.h"'
    file Other/Other.h ''
    file fc/Table.cpp '#include "Subject/Subject.h"' '#include "common/Trace.h"'
}

finds_nothing() { check_includes 2>"$SAID" || because "found: $(<"$SAID")"; }

# finds TEXT: and nothing else.
finds() {
    ! check_includes 2>"$SAID" || because "nothing was found" || return
    [[ $(<"$SAID") == "plugins/filter/$1"* && $(wc -l <"$SAID") -eq 1 ]] || because "found: $(<"$SAID")"
}

ArrowsThatGoTheRightWayPass() {
    fresh
    finds_nothing
}

CommonIncludesNoOtherFolder() {
    local header
    for header in Subject/Subject.h ../Subject/Subject.h; do
        fresh
        file common/Text.cpp "#include \"$header\""
        finds "common/Text.cpp includes $header: common uses none of the other folders" || return
    done
}

ASubjectIncludesNoOtherSubject() {
    fresh
    file Subject/parts/Part.cpp '#include "Other/Other.h"'
    finds 'Subject/parts/Part.cpp includes Other/Other.h: a subject uses common alone'
}

ASubjectDoesNotIncludeTheEntry() {
    fresh
    file fc/fc.h ''
    file Subject/Subject.cpp '#include "fc/fc.h"'
    finds 'Subject/Subject.cpp includes fc/fc.h: a subject uses common alone'
}

TheEntryIncludesTheHeaderThatIsNamedAfterASubject() {
    fresh
    file fc/Table.cpp '#include "Subject/parts/Part.h"'
    finds 'fc/Table.cpp includes Subject/parts/Part.h: include Subject/Subject.h'
}

for name in ArrowsThatGoTheRightWayPass CommonIncludesNoOtherFolder ASubjectIncludesNoOtherSubject \
    ASubjectDoesNotIncludeTheEntry TheEntryIncludesTheHeaderThatIsNamedAfterASubject; do
    test_case "$name"
done
write_results rules-tests "$XML"
