#!/usr/bin/env bash
# How ./dev coverage counts, and which changes ./dev mutate draws.
#   coverage-tests.sh XML
# The results go to XML, as GoogleTest writes them.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
XML=$1
SCRIPTS=$HERE/../../scripts
# shellcheck source=tests/support/shell-tests.sh
. "$HERE/../support/shell-tests.sh" Coverage

# counted [--whole] LINES [BRANCH]...: what is told of $WORK/x.cpp; the table without its head and blanks. False if that fails. LINES are
# the counts of its lines, 0 or more, or - where there is no code, a BRANCH is LINE,COLUMN,TRUE,FALSE.
counted() {
    local count number=0 branches=() whole=()
    [ "$1" != --whole ] || { whole=(--whole) && shift; }
    {
        echo "SF:$WORK/x.cpp"
        for count in $1; do
            number=$((number + 1))
            [ "$count" = - ] || echo "DA:$number,$count"
        done
        echo end_of_record
    } >"$WORK/lcov"
    for branch in "${@:2}"; do
        IFS=, read -ra branch <<<"$branch"
        branches+=("[${branch[0]}, ${branch[1]}, ${branch[0]}, 99, ${branch[2]}, ${branch[3]}, 0, 0, 4]")
    done
    (
        IFS=,
        echo "{\"data\": [{\"files\": [{\"filename\": \"$WORK/x.cpp\", \"branches\": [${branches[*]}]}]}]}"
    ) >"$WORK/json"
    "$SCRIPTS/coverage.py" "${whole[@]}" "$WORK" "$WORK/lcov" "$WORK/json" 2>"$WORK/error" | sed '/file$/d; s/  */ /g; s/^ //' >"$WORK/out"
}

# is_told LINE...: all that the last count told.
is_told() {
    printf '%s\n' "$@" | diff - "$WORK/out" >"$WORK/difference" || because "$(<"$WORK/difference")"
}

LinesAndBranchesAreCounted() {
    printf 'a\nb\nc\n' >"$WORK/x.cpp"
    counted '3 0 1' 1,5,3,0 2,5,0,0 3,5,0,1
    is_told 'x.cpp:1: never false' 'x.cpp:2: not reached' 'x.cpp:3: never true' \
        '3 2 66.7 % 6 2 33.3 % x.cpp' '3 2 66.7 % 6 2 33.3 % all'
}

WhatACommentGivesAReasonForIsLeftOut() {
    cat >"$WORK/x.cpp" <<'CPP'
first();
second();  // not reached: it has no second
// not reached: the answer is never this one, which
// takes two lines to say
if (answer) {
    third();
}
fourth();
CPP
    counted '1 0 - - 1 0 0 0' 5,5,0,1
    is_told 'x.cpp:8: not reached' '2 1 50.0 % 0 0 100.0 % x.cpp' '2 1 50.0 % 0 0 100.0 % all'
}

ACommentThatIsNoLongerTrueIsTold() {
    echo 'first();  // not reached: it has no first' >"$WORK/x.cpp"
    counted 1
    grep -qxF 'x.cpp:1: the comment says "not reached", and all of it is reached' "$WORK/out" || because "it says: $(<"$WORK/out")"
}

TheInstancesOfATemplateAreOne() {
    echo a >"$WORK/x.cpp"
    counted 1 1,5,1,0 1,5,0,1 1,9,1,0
    is_told 'x.cpp:1: never false' '1 1 100.0 % 4 3 75.0 % x.cpp' '1 1 100.0 % 4 3 75.0 % all'
}

# is_short WHAT: the last count failed in one line, which says so.
is_short() {
    [ "$(<"$WORK/error")" = "error: the tests reach too little: $1" ] || because "it says: $(<"$WORK/error")"
}

TheWholeFailsBelow100PercentOfLinesOr97OfBranches() {
    local most=() all=() place
    for place in {1..50}; do all+=("1,$place,1,1"); done
    most=("${all[@]:3}" "1,51,1,0" "1,52,1,0" "1,53,1,0")
    printf 'a\nb\n' >"$WORK/x.cpp"
    counted --whole '1 1' "${most[@]}" || because "97 % of branches fail: $(<"$WORK/error")" || return
    ! counted --whole '1 1' "${most[@]:1}" 1,54,0,1 || because "96 % of branches pass" || return
    is_short '96 of 100 branches, at least 97 %' || return
    ! counted --whole '1 0' "${all[@]}" || because "50 % of lines pass" || return
    is_short '1 of 2 lines, at least 100 %' || return
    ! counted --whole '1 0' 1,1,1,0 || because "half of both passes" || return
    is_short '1 of 2 lines, at least 100 %; 1 of 2 branches, at least 97 %'
}

APartOfTheProgramsMayReachLess() {
    printf 'a\nb\n' >"$WORK/x.cpp"
    counted '1 0' 1,1,1,0 || because "it fails: $(<"$WORK/error")"
}

AReportOfNothingFails() {
    : >"$WORK/lcov"
    ! "$SCRIPTS/coverage.py" "$WORK" "$WORK/lcov" "$WORK/json" >/dev/null 2>&1 || because "no line of source is a success"
}

# draw SEED COUNT: changes of $WORK/y.cpp; `drawn` has what they are changed to.
draw() {
    rm -rf "$WORK/drawn"
    (cd "$WORK" && "$SCRIPTS/mutations.py" --seed "$1" --count "$2" --to drawn y.cpp)
    : >"$WORK/out"
    for folder in "$WORK"/drawn/*/; do
        ! cmp -s "$folder/source" "$WORK/y.cpp" || because "a change changes nothing: $(<"$folder/what")" || return
        sed -n 's/^ *changed to: //p' "$folder/what" >>"$WORK/out"
    done
}

# has_drawn LINE...: these changes, and no other.
has_drawn() {
    diff <(printf '%s\n' "$@" | LC_ALL=C sort) <(LC_ALL=C sort "$WORK/out") >"$WORK/difference" || because "$(<"$WORK/difference")"
}

EachKindOfChangeIsDrawn() {
    printf '%s\n' 'void f() {' '    if (a < 7 && b)' '        g("text");' '}' >"$WORK/y.cpp"
    draw 1 100
    has_drawn 'if (a <= 7 && b)' 'if (a < 8 && b)' 'if (a < 7 || b)' 'if (!(a < 7 && b))' 'g("~text");' ';'
}

CommentsAndDirectivesStayAsTheyAre() {
    printf '%s\n' '#include "x1.h"' '// if (a < 7)' '/* 3' '4 */' 'const char *s = "// 5";  // "6"' 'static_assert(sizeof(a) == 8);' >"$WORK/y.cpp"
    draw 1 100
    has_drawn 'const char *s = "~// 5"; // "6"'
}

TheSeedDecides() {
    printf 'int a = %d;\n' {1..40} >"$WORK/y.cpp"
    draw 5 10 && cp "$WORK/out" "$WORK/first" || return
    [ "$(wc -l <"$WORK/first")" -eq 10 ] || because "not ten changes" || return
    draw 5 10
    cmp -s "$WORK/first" "$WORK/out" || because "the same seed draws others" || return
    draw 6 10
    ! cmp -s "$WORK/first" "$WORK/out" || because "another seed draws the same"
}

for name in LinesAndBranchesAreCounted WhatACommentGivesAReasonForIsLeftOut ACommentThatIsNoLongerTrueIsTold TheInstancesOfATemplateAreOne \
    TheWholeFailsBelow100PercentOfLinesOr97OfBranches APartOfTheProgramsMayReachLess AReportOfNothingFails \
    EachKindOfChangeIsDrawn CommentsAndDirectivesStayAsTheyAre TheSeedDecides; do
    test_case "$name"
done
write_results coverage-tests "$XML"
