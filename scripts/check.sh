# shellcheck shell=bash
# ./dev check: formatting, lint and the house rules. Every check runs; each failure counts.

CPP_GLOBS=('*.cpp' '*.h' '*.c')
CPP_FOLDERS=(plugins interfaces devkit tests bench)

cpp_files() { git ls-files --cached --others --exclude-standard -- "${CPP_GLOBS[@]}"; }

# An empty check must not pass: without git's list of files there is nothing to check.
require_files() {
    [ "$(cpp_files | wc -l)" -gt 0 ] || die "git lists no sources here: run this in a clone (see 'git status')"
}

check_format() {
    local files
    mapfile -t files < <(cpp_files)
    clang-format-19 --dry-run -Werror "${files[@]}" || {
        echo "format them with: clang-format-19 -i FILE..." >&2
        return 1
    }
}

# One per line. clang-tidy reads the sources as clang would for the same target: MinGW's headers, clang's own
# intrinsics.
tidy_arguments() {
    local folder dir libraries
    libraries=$(libraries_dir)
    printf '%s\n' --target=x86_64-w64-windows-gnu -std=c++20 -nostdinc -w \
        -DUNICODE -D_UNICODE -D_WIN32_WINNT=0x0A00 -DWINVER=0x0A00 -D__WXMSW__ -DWXUSINGDLL -DwxUSE_GUI=0 \
        -DLUA_BUILD_AS_DLL -DLUA_COMPAT_ALL -DCJSON_HIDE_SYMBOLS -DNDEBUG \
        "-I$BUILD/version" '-DFC_WX_DLL="wx.dll"'
    for folder in interfaces . plugins/filter devkit/vta_core devkit/slb3 devkit/vti devkit/simulator devkit/machines devkit/host tests tests/support tests/WindowsDriverInstaller; do
        echo "-I$ROOT/$folder"
    done
    for dir in "$libraries/include" "$(headers_dir)/include" "$libraries"/lib/*/baseu /usr/src/googletest/googletest/include; do
        printf '%s\n' -isystem "$dir"
    done
    x86_64-w64-mingw32-g++-posix -E -x c++ -v /dev/null 2>&1 |
        sed -n '/#include <...> search starts/,/End of search/p' |
        awk '/^ / && !/\/gcc\/[^ ]*\/include(-fixed)?$/ { print "-isystem\n" $1 }'
    printf '%s\n' -isystem "$(clang-19 -print-resource-dir)/include" -isystem /usr/x86_64-w64-mingw32/include
}

# Many files are read as one, since most of the time goes into the system's headers. They have to be the unit's own includes:
# of what these include again the path analysis reads nothing.
# unit_of FILE: the one that a source belongs to. In those named after tests each file has a namespace.
unit_of() {
    case $1 in
    */SystemGuids.cpp) echo plugins/guids ;; # defines what the system's headers declare
    plugins/filter/WindowsDriverInstaller/*/*) echo plugins/installer ;;
    plugins/*) echo plugins/module ;;
    devkit/simulator/* | devkit/host/*) echo "${1%/*}" ;;
    devkit/*) echo devkit/libraries ;;
    tests/*)
        if grep -q '^#include "DriverThreadProbe.h"' "$1"; then
            echo tests/threads-tests # this header includes a source of the product
        elif grep -q '^#include ".*\.cpp"' "$1"; then
            echo tests/source
        elif grep -qE '^(bool operator|[A-Z]+ WINAPI .*;)' "$1"; then
            echo tests/global # what these declare has to be
        elif [[ $1 == tests/@(devkit|WindowsDriverInstaller)/*Test.cpp ]]; then
            echo "${1%/*}-tests"
        elif [[ $1 == @(*Test.cpp|tests/runner/*) ]]; then
            echo tests/other-tests
        else
            echo tests/fixtures
        fi
        ;;
    *) echo "${1%/*}" ;;
    esac
}

include_files() { printf '#include "'"$ROOT"'/%s"\n' "$@"; }

# Files of tests define the same names, so each has its own namespace, after all headers.
include_in_namespaces() {
    local file header count=0
    cat "$@" | grep '^#include <' | sort -u
    for file in "$@"; do
        sed -n 's,^#include "\([^"]*\)".*,\1,p' "$file" | while read -r header; do
            if [ -f "${file%/*}/$header" ]; then echo "#include \"$ROOT/${file%/*}/$header\""; else echo "#include \"$header\""; fi
        done
    done | sort -u
    for file in "$@"; do
        echo "namespace Unit$((++count)) {"
        include_files "$file"
        echo "}"
    done
}

# write_units FOLDER: leaves them there.
write_units() {
    local to=$1 file unit
    local -A files
    while read -r file; do
        files[$(unit_of "$file")]+="$file "
    done < <(git ls-files --cached --others --exclude-standard -- '*.cpp')
    for unit in "${!files[@]}"; do
        mkdir -p "$(dirname "$to/$unit")"
        # shellcheck disable=SC2086 # no source has a blank in its name
        case $unit in
        *-tests) include_in_namespaces ${files[$unit]} >"$to/$unit.cpp" ;;
        *) include_files ${files[$unit]} >"$to/$unit.cpp" ;;
        esac
    done
}

# longest_first UNIT...: sorts by the amount of our code that they include, so that none runs alone at the end.
longest_first() {
    local unit
    for unit in "$@"; do
        echo "$(sed -n 's,^#include "\(/[^"]*\)"$,\1,p' "$unit" | xargs -r -d '\n' cat | wc -c) $unit"
    done | sort -rn | cut -d ' ' -f 2-
}

check_tidy() {
    local arguments units folder
    rm -rf "$BUILD/tidy"
    for folder in plugins tests; do
        mkdir -p "$BUILD/tidy/$folder"
        cp "$folder/.clang-tidy" "$BUILD/tidy/$folder/"
    done
    cp .clang-tidy "$BUILD/tidy/"
    mapfile -t arguments < <(tidy_arguments)
    write_units "$BUILD/tidy"
    mapfile -t units < <(find "$BUILD/tidy" -name '*.cpp')
    longest_first "${units[@]}" | xargs -P "$JOBS" -I UNIT clang-tidy-19 --quiet UNIT -- "${arguments[@]}" \
        2> >(grep -v 'warnings\? generated\|Suppressed\|^Use -header-filter' >&2)
}

# Of the suppressed ones newer versions are wrong about: texts made from literals in a loop, values of closed files in
# assertions, what `new` at an address returns, and pointers to pointers to void, which the compiler checks.
check_cppcheck() {
    mkdir -p "$BUILD/cppcheck"
    cppcheck --quiet --error-exitcode=1 --std=c++20 --platform=win64 --language=c++ --inline-suppr -j "$JOBS" \
        --cppcheck-build-dir="$BUILD/cppcheck" --enable=warning,performance,portability \
        --suppress=missingInclude --suppress=useInitializationList --suppress=unknownMacro --suppress='*:/usr/*' \
        --suppress=iterateByValue --suppress='deallocuse:tests/*' --suppress='nullPointerOutOfResources:tests/*' \
        --suppress=legacyUninitvar --suppress=arithOperationsOnVoidPointer --suppress=normalCheckLevelMaxBranches \
        -DVTA_CORE_API= -DSLB3_API= -DVTI_API= -DWINAPI= -DFC_WX_DLL='"wx.dll"' \
        -DTEST_F\(a,b\)=void\ b\(\) -DTEST\(a,b\)=void\ b\(\) -DTYPED_TEST\(a,b\)=void\ b\(\) -DTEST_P\(a,b\)=void\ b\(\) \
        -I interfaces -I plugins/filter "${CPP_FOLDERS[@]}"
}

# With warnings as errors, and each header of the product alone.
check_build() { prepare_build all header_checks; }

check_lua() { luacheck --quiet examples docs/lua packaging; }

check_shell() { shellcheck -x dev .ci/run scripts/run-apart.sh scripts/run-windows.sh scripts/renew-pins scripts/report-picture scripts/try-on tests/*/*.sh tests/runner/fakes/*; }

# A linter for workflows checks more (CONTRIBUTING.md); this only checks that it can be parsed. clang-tidy installs
# Python's yaml.
check_workflow() {
    /usr/bin/python3 -c 'import sys, yaml; sys.exit(not yaml.safe_load(open(sys.argv[1]))["jobs"])' .github/workflows/ci.yml
}

# finish_check NAME: waits for a check that runs, and shows what it says.
finish_check() {
    say "check: $1"
    wait_telling "${pids[$1]}" "check: $1" || failed+=("$1")
    cat "$LOGS/check-$1.log" >&2
}

# The others run at once, since some of them keep one processor busy, and the longest beside the build. Their output is shown
# in sequence.
run_checks() {
    local failed=() name
    local -A pids
    STRICT=ON
    prepare_configured "${PACKAGES_CHECK[@]}"
    require_files
    mkdir -p "$LOGS"
    for name in tidy cppcheck format rules shell workflow lua; do
        ("check_$name" || exit 1) >"$LOGS/check-$name.log" 2>&1 &
        pids[$name]=$!
    done
    for name in format rules shell workflow lua cppcheck; do
        finish_check "$name"
    done
    say "check: build"
    (check_build || exit 1) &
    wait_telling $! "check: build" || failed+=(build)
    finish_check tidy
    [ ${#failed[@]} -eq 0 ] || die "these checks failed: ${failed[*]}"
    say "all checks passed"
}
