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
        -include "$ROOT/scripts/tidy-prelude.h" \
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

# The files of a folder are checked as one, since the system's headers take most of the time. tidy_unit NAME FILE...:
# writes such a file and prints its path.
tidy_unit() {
    local unit=$BUILD/tidy/$1.cpp
    shift
    mkdir -p "$(dirname "$unit")"
    printf '#include "'"$ROOT"'/%s"\n' "$@" >"$unit"
    echo "$unit"
}

# The same for tests, whose files define the same names: each in its own namespace, after all headers.
# tidy_unit_of_tests NAME FILE...
tidy_unit_of_tests() {
    local unit=$BUILD/tidy/$1.cpp file header count=0
    shift
    mkdir -p "$(dirname "$unit")"
    {
        cat "$@" | grep '^#include <' | sort -u
        for file in "$@"; do
            sed -n 's,^#include "\([^"]*\)".*,\1,p' "$file" | while read -r header; do
                if [ -f "${file%/*}/$header" ]; then echo "#include \"$ROOT/${file%/*}/$header\""; else echo "#include \"$header\""; fi
            done
        done | sort -u
        for file in "$@"; do
            echo "namespace Unit$((++count)) {"
            echo "#include \"$ROOT/$file\""
            echo "}"
        done
    } >"$unit"
    echo "$unit"
}

# The units of test programs that have many files.
tidy_units_of() {
    local folder=$1 file tests=() others=() apart=(-e '^#include ".*\.cpp"' -e '^SIMULATOR_FUNCTION')
    # Files that include sources, or declare system functions, can't be combined with others.
    while read -r file; do
        apart+=(-e "^#include \"${file##*/}\"")
    done < <(grep -l '^#include ".*\.cpp"' "$folder"/*.h)
    while read -r file; do
        if grep -q "${apart[@]}" "$file"; then
            tidy_unit "${file%.cpp}" "$file"
        elif [[ $file == *Test.cpp ]]; then
            tests+=("$file")
        else
            others+=("$file")
        fi
    done < <(git ls-files --cached --others --exclude-standard -- ":(glob)$folder/*.cpp")
    tidy_unit_of_tests "$folder/tests" "${tests[@]}"
    tidy_unit "$folder/others" "${others[@]}"
}

# longest_first UNIT...: sorts by the amount of our code that they include, so that none runs alone at the end.
longest_first() {
    local unit
    for unit in "$@"; do
        echo "$(sed -n 's,^#include "\(/[^"]*\)"$,\1,p' "$unit" | xargs -r -d '\n' cat | wc -c) $unit"
    done | sort -rn | cut -d ' ' -f 2-
}

check_tidy() {
    local arguments folder files units=()
    rm -rf "$BUILD/tidy"
    mkdir -p "$BUILD/tidy"
    cp .clang-tidy "$BUILD/tidy/"
    mkdir -p "$BUILD/tidy/tests"
    cp tests/.clang-tidy "$BUILD/tidy/tests/"
    mapfile -t arguments < <(tidy_arguments)
    for folder in $(git ls-files --cached --others --exclude-standard -- '*.cpp' | xargs -n 1 dirname | sort -u); do
        mapfile -t files < <(git ls-files --cached --others --exclude-standard -- ":(glob)$folder/*.cpp")
        case $folder in
        tests/devkit | tests/WindowsDriverInstaller) mapfile -t -O ${#units[@]} units < <(tidy_units_of "$folder") ;;
        *) units+=("$(tidy_unit "$folder" "${files[@]}")") ;;
        esac
    done
    longest_first "${units[@]}" | xargs -P "$JOBS" -I UNIT clang-tidy-19 --quiet UNIT -- "${arguments[@]}" \
        2> >(grep -v 'warnings\? generated\|Suppressed\|^Use -header-filter' >&2)
}

check_cppcheck() {
    mkdir -p "$BUILD/cppcheck"
    cppcheck --quiet --error-exitcode=1 --std=c++20 --platform=win64 --language=c++ --inline-suppr -j "$JOBS" \
        --cppcheck-build-dir="$BUILD/cppcheck" --enable=warning,performance,portability \
        --suppress=missingInclude --suppress=useInitializationList --suppress=unknownMacro --suppress='*:/usr/*' \
        -DVTA_CORE_API= -DSLB3_API= -DVTI_API= -DWINAPI= -DFC_WX_DLL='"wx.dll"' \
        -DTEST_F\(a,b\)=void\ b\(\) -DTEST\(a,b\)=void\ b\(\) -DTYPED_TEST\(a,b\)=void\ b\(\) -DTEST_P\(a,b\)=void\ b\(\) \
        -I interfaces -I plugins/filter "${CPP_FOLDERS[@]}"
}

# Compiles each header of the product alone.
check_headers() { ninja -C "$BUILD" -j "$JOBS" header_checks; }

check_warnings() { prepare_build all; }

check_lua() { luacheck --quiet examples docs/lua packaging; }

check_shell() { shellcheck -x dev .ci/run scripts/run-apart.sh scripts/run-windows.sh scripts/renew-pins scripts/report-picture scripts/try-on tests/*/*.sh tests/runner/fakes/*; }

# A linter for workflows checks more (CONTRIBUTING.md); this only checks that it can be parsed. clang-tidy installs
# Python's yaml.
check_workflow() {
    /usr/bin/python3 -c 'import sys, yaml; sys.exit(not yaml.safe_load(open(sys.argv[1]))["jobs"])' .github/workflows/ci.yml
}

# Everything but the build runs at once, since some checks use only one processor. Their output is shown in sequence.
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
    for name in format rules shell workflow lua cppcheck tidy; do
        say "check: $name"
        wait_telling "${pids[$name]}" "check: $name" || failed+=("$name")
        cat "$LOGS/check-$name.log" >&2
    done
    for name in headers warnings; do
        say "check: $name"
        ("check_$name" || exit 1) &
        wait_telling $! "check: $name" || failed+=("$name")
    done
    [ ${#failed[@]} -eq 0 ] || die "these checks failed: ${failed[*]}"
    say "all checks passed"
}
