# shellcheck shell=bash
# Rules of the house that no other tool knows. Each message says what to do instead.

# forbid MESSAGE PATTERN PATH...: fails when the pattern stands in a file.
forbid() {
    local message=$1 pattern=$2 found
    shift 2
    found=$(git grep -nIE --untracked "$pattern" -- "$@") || [ $? -eq 1 ] || die "git grep failed"
    [ -n "$found" ] || return 0
    printf '%s\n%s\n\n' "$message:" "$found" >&2
    return 1
}

# folder_of_header FILE HEADER: the folder below plugins/filter that an included header lies in; nothing if it is another's.
folder_of_header() {
    local path
    for path in "${1%/*}/$2" "plugins/filter/$2"; do
        path=$(realpath -ms --relative-base="$PWD" "$path")
        case $path in plugins/filter/*/*) [ ! -e "$path" ] || { echo "$path" | cut -d/ -f3 && return; } ;; esac
    done
}

# Arrows between the folders below plugins/filter go one way: fc (the entry) -> the subjects -> common. The entry includes
# of a subject the header that is named after it.
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

# Suites whose names begin with Real run on the machine's own parts. These only ask it.
ONLY_ASKING='RealDevices|RealIpHelper|RealPerformanceQueries|RealSecurity|RealVersion'

# The others are left out where the machine is somebody's own.
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

check_rules() {
    local status=0
    check_includes || status=1
    check_real_suites || status=1
    forbid "The product knows nothing of the devkit; use what interfaces/ offers" \
        '#include "(devkit|.*_control\.h|simulator|Simulator)' plugins interfaces || status=1
    forbid "A test that is switched off counts as nothing: mend or delete it" \
        '\bDISABLED_' tests || status=1
    forbid "Trace through the one helper, which asks first whether the component is wanted" \
        'VtaCore::LogTrace\(' plugins ':!plugins/filter/common/Trace.h' || status=1
    forbid "Do it now, or leave it out: the code is no list of wishes" '\b(TODO|FIXME|XXX)\b' \
        plugins interfaces devkit tests bench examples || status=1
    return $status
}
