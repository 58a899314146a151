# shellcheck shell=bash
# House rules that no other tool knows. Each message says what to do instead.

# forbid MESSAGE PATTERN PATH...: fails if the pattern occurs in a file.
forbid() {
    local message=$1 pattern=$2 found
    shift 2
    found=$(git grep -nIE --untracked "$pattern" -- "$@") || [ $? -eq 1 ] || die "git grep failed"
    [ -n "$found" ] || return 0
    printf '%s\n%s\n\n' "$message:" "$found" >&2
    return 1
}

# folder_of_header FILE HEADER: the folder below plugins/filter that contains an included header; empty if it is not
# ours.
folder_of_header() {
    local path
    for path in "${1%/*}/$2" "plugins/filter/$2"; do
        path=$(realpath -ms --relative-base="$PWD" "$path")
        case $path in plugins/filter/*/*) [ ! -e "$path" ] || { echo "$path" | cut -d/ -f3 && return; } ;; esac
    done
}

# Includes between the folders below plugins/filter go one way: fc (the entry) -> the subjects -> common. Of a subject,
# the entry includes the header named after it.
check_includes() {
    local status=0 file own folder header
    while IFS=: read -r file _ header; do
        header=${header#*\"}
        header=${header%\"*}
        own=$(echo "$file" | cut -d/ -f3)
        folder=$(folder_of_header "$file" "$header")
        case $own:$folder in
        *: | "$own:$own") ;;
        common:*)
            echo "$file includes $header: common uses none of the other folders; hand it what it needs from there" >&2
            status=1
            ;;
        *:common | fc:*)
            [ "$folder" = common ] || [ "$header" = "$folder/$folder.h" ] || {
                echo "$file includes $header: include $folder/$folder.h, which says what that folder offers" >&2
                status=1
            }
            ;;
        *)
            echo "$file includes $header: a subject uses common alone; move there what both need" >&2
            status=1
            ;;
        esac
    done < <(git grep -nE --untracked '^#include "' -- plugins)
    return $status
}

# Suites whose names begin with Real use the machine itself. These only query it.
ONLY_ASKING='RealDevices|RealIpHelper|RealPerformanceQueries|RealSecurity|RealVersion'

# The others are skipped on a user's own machine.
check_real_suites() {
    local status=0 suite
    while read -r suite; do
        grep -qF "\"$suite\"" tests/support/OwnMachine.cpp || {
            echo "$suite: add it to tests/support/OwnMachine.cpp if it changes anything of the machine, else to ONLY_ASKING in scripts/rules.sh" >&2
            status=1
        }
    done < <(git grep -hoE --untracked '^TEST(_F|_P)?\(Real\w+' -- tests | sed 's/.*(//' | sort -u | grep -vxE "$ONLY_ASKING")
    return $status
}

# Numbers of deliberate oddities: in the code as "compat 12:", on the page as the first cell of a row.
numbers_in_code() { git grep -hoE --untracked 'compat [0-9]+:' -- plugins | grep -oE '[0-9]+' | sort -u; }
numbers_on_page() { sed -nE 's/^\| ([0-9]+) \|.*/\1/p' docs/compatibility.md | sort -u; }

# Tests as Suite.Name: all of them, and those in the last cell of a row on the page.
names_of_tests() {
    git ls-files --cached --others --exclude-standard -z -- 'tests/*.cpp' | xargs -0 cat | tr -s '\n ' ' ' |
        sed -E 's/(TYPED_)?TEST(_F|_P)?\( ?(\w+), (\w+)/\n\3.\4\n/g' | grep -E '^\w+\.\w+$' | sort -u
}
# shellcheck disable=SC2016 # the backquotes are Markdown's
tests_on_page() { sed -nE 's/^\| [0-9]+ \|.*\| ([^|]*) \|$/\1/p' docs/compatibility.md | grep -oE '`[^`]+`' | tr -d '`' | sort -u; }

# complain_of MESSAGE: fails if there is input, and shows it.
complain_of() {
    local found
    found=$(cat)
    [ -n "$found" ] || return 0
    printf '%s:\n%s\n\n' "$1" "$found" >&2
    return 1
}

# Each deliberate oddity is marked in the code and explained on the page, which names tests that exist.
check_compatibility() {
    local status=0 page=docs/compatibility.md
    [ -n "$(numbers_on_page)" ] || { echo "$page has no rows that begin with a number" >&2 && return 1; }
    comm -23 <(numbers_in_code) <(numbers_on_page) |
        complain_of "Numbers in the code that $page does not explain: add a row, or take the next free number" || status=1
    comm -13 <(numbers_in_code) <(numbers_on_page) |
        complain_of "Numbers on $page that the code does not have: mark the place with // compat N: ..., or remove the row" || status=1
    sed -nE 's/^\| ([0-9]+) \|.*/\1/p' $page | sort | uniq -d |
        complain_of "Numbers that stand twice on $page: take the next free one" || status=1
    comm -23 <(tests_on_page) <(names_of_tests) |
        complain_of "Tests on $page that do not exist: name those that hold the behaviour now" || status=1
    forbid "Say why, or give the oddity a number in $page" '\b(meant|kept) so\b' \
        plugins interfaces devkit tests bench examples || status=1
    return $status
}

# Agent events by number: constants such as kUpgradeEvent in the code, rows of the index for support.
events_in_code() { git grep -hoE --untracked 'constexpr int k\w+Event = [0-9]+' -- plugins | grep -oE '[0-9]+$' | sort -u; }
events_on_page() { sed -nE 's/^\| ([0-9]{4}) \|.*/\1/p' docs/support.md | sort -u; }
# The module's messages in English, up to the first insert.
messages_in_code() { git grep -h --untracked -A 1 '^Language=English' -- 'plugins/*.mc' | sed -nE '/^(Language|--|\.)/d; s/ *%.*//p'; }

check_support_page() {
    local status=0 page=docs/support.md text
    [ -n "$(events_in_code)" ] || { echo "no constant k...Event in plugins: adapt events_in_code" >&2 && return 1; }
    [ -n "$(messages_in_code)" ] || { echo "no English message in plugins: adapt messages_in_code" >&2 && return 1; }
    comm -23 <(events_in_code) <(events_on_page) | complain_of "Events that $page does not explain: add a row" || status=1
    comm -13 <(events_in_code) <(events_on_page) | complain_of "Events on $page that the code does not send: remove the row" || status=1
    while read -r text; do
        grep -qF "$text" $page || echo "$text"
    done < <(messages_in_code) | complain_of "Messages that $page does not have: quote them" || status=1
    return $status
}

check_rules() {
    local status=0
    check_includes || status=1
    check_real_suites || status=1
    check_compatibility || status=1
    check_support_page || status=1
    forbid "The product must not depend on the devkit; use interfaces/" \
        '#include "(devkit|.*_control\.h|simulator|Simulator)' plugins interfaces || status=1
    forbid "A disabled test checks nothing: fix or delete it" \
        '\bDISABLED_' tests || status=1
    forbid "Trace through the one helper, which first checks whether the component is enabled" \
        'VtaCore::LogTrace\(' plugins ':!plugins/filter/common/Trace.h' || status=1
    forbid "Do it now, or leave it out: the code is not a to-do list" '\b(TODO|FIXME|XXX)\b' \
        plugins interfaces devkit tests bench examples || status=1
    return $status
}
