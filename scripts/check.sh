# shellcheck shell=bash
# ./dev check: formatting, lint and the rules of the house. Every check runs; each failure counts.

CPP_GLOBS=('*.cpp' '*.h' '*.c')
CPP_FOLDERS=(plugins interfaces devkit tests bench)

cpp_files() { git ls-files --cached --others --exclude-standard -- "${CPP_GLOBS[@]}"; }

check_format() {
    local files
    mapfile -t files < <(cpp_files)
    clang-format --dry-run -Werror "${files[@]}" || {
        echo "format them with: clang-format -i FILE..." >&2
        return 1
    }
}

# clang-tidy reads the sources as clang for the same target: MinGW's headers, clang's own intrinsics.
tidy_arguments() {
    local dir
    echo --extra-arg=--target=x86_64-w64-windows-gnu
    echo --extra-arg=-nostdinc
    echo --extra-arg=-Wno-unknown-warning-option
    x86_64-w64-mingw32-g++-posix -E -x c++ -v /dev/null 2>&1 |
        sed -n '/#include <...> search starts/,/End of search/p' | awk '/^ / { print $1 }' |
        while read -r dir; do
            case $dir in
            *12-posix/include | */include-fixed) ;;
            *) echo "--extra-arg=-isystem$dir" ;;
            esac
        done
    echo "--extra-arg=-isystem$(clang -print-resource-dir)/include"
    echo --extra-arg=-isystem/usr/x86_64-w64-mingw32/include
}

check_tidy() {
    local arguments sources
    mapfile -t arguments < <(tidy_arguments)
    mapfile -t sources < <(git ls-files --cached --others --exclude-standard -- "${CPP_FOLDERS[@]/%//*.cpp}")
    printf '%s\n' "${sources[@]}" | xargs -P "$JOBS" -n 1 clang-tidy -p "$BUILD" --quiet "${arguments[@]}" \
        2> >(grep -v 'warnings generated\|warning generated\|Suppressed\|^Use -header-filter' >&2)
}

check_cppcheck() {
    mkdir -p "$BUILD/cppcheck"
    cppcheck --quiet --error-exitcode=1 --std=c++20 --platform=win64 --language=c++ --inline-suppr -j "$JOBS" \
        --cppcheck-build-dir="$BUILD/cppcheck" --enable=warning,performance,portability \
        --suppress=missingInclude --suppress=unknownMacro --suppress='*:/usr/*' \
        -DVTA_CORE_API= -DSLB3_API= -DVTI_API= -DWINAPI= -DTEST_F\(a,b\)=void\ b\(\) -DTEST\(a,b\)=void\ b\(\) \
        -I interfaces -I plugins/filter "${CPP_FOLDERS[@]}"
}

check_lua() { luacheck --quiet examples; }

check_shell() { shellcheck -x dev .ci/run; }

run_checks() {
    local failed=() name
    install_packages "${PACKAGES_BUILD[@]}" "${PACKAGES_CHECK[@]}"
    prepare_libraries
    configure_build
    for name in format rules shell lua cppcheck tidy; do
        say "check: $name"
        "check_$name" || failed+=("$name")
    done
    [ ${#failed[@]} -eq 0 ] || die "these checks failed: ${failed[*]}"
    say "all checks passed"
}
