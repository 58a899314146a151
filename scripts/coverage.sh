# shellcheck shell=bash
# What of the module the tests reach: clang's coverage of sources.

REPLACED=$BUILD/bin-replaced

# replace_module FOLDER: the module of that folder in $REPLACED, beside links to all that the test programs need.
replace_module() {
    local file
    rm -rf "$REPLACED"
    mkdir -p "$REPLACED"
    for file in "$BUILD"/bin/*; do
        case ${file##*/} in fc.dll | fc.pdb) ;; *) ln -s "$file" "$REPLACED/" ;; esac
    done
    cp "$1/fc.dll" "$1/fc.pdb" "$REPLACED/"
}

# replaced_entries [PROGRAM...]: the entries that run these test programs, or all of them, with the replaced module.
replaced_entries() {
    local names=("$@")
    [ $# -gt 0 ] || mapfile -t names <"$BUILD/test-programs.txt"
    printf '%s-replaced\n' "${names[@]}" | grep -v '^-'
}

# code_page_entries ENTRY...: those that run the same tests under other code pages.
code_page_entries() {
    ctest_entries | grep -xF "$(printf '%s\n' "${@/%-replaced/-932-replaced}" "${@/%-replaced/-65001-replaced}")"
}

# run_coverage [PROGRAM...]: with all test programs, or the named ones. Returns false if a test fails: then the figures mean little. Also
# if all programs together reach too little.
run_coverage() {
    local profiles=$BUILD/profiles out=$OUT/coverage status=0 entries image=$BUILD/covered/fc.dll whole=()
    [ $# -gt 0 ] || whole=(--whole)
    CTEST+=(-C Replaced)
    mapfile -t entries < <(replaced_entries "$@")
    mapfile -t -O ${#entries[@]} entries < <(code_page_entries "${entries[@]}")
    replace_module "${image%/*}"
    rm -rf "$profiles" "$out"
    mkdir -p "$profiles" "$out"
    FC_PROFILES=Z:${profiles//\//\\} run_tests "${entries[@]}" || status=1
    [ -n "$(ls -A "$profiles")" ] || die "the tests left no profile in $profiles"
    quietly coverage.log "merging the profiles" llvm-profdata-19 merge --sparse -o "$out/fc.profdata" "$profiles"/*.profraw
    export_coverage "$image" "$out"
    "$ROOT/scripts/coverage.py" "${whole[@]}" "$ROOT" "$out/fc.lcov" "$out/fc.json" || status=1
    echo "The page is $(to_caller "$out/index.html")"
    return $status
}

# export_coverage IMAGE FOLDER: from fc.profdata the page, and what scripts/coverage.py reads.
export_coverage() {
    local how=(--instr-profile="$2/fc.profdata" --compilation-dir="$ROOT" --ignore-filename-regex='(^|/)(usr|libraries|headers|interfaces)/')
    llvm-cov-19 show "$1" "${how[@]}" --format=html --show-branches=count --output-dir="$2" >/dev/null
    llvm-cov-19 export "$1" "${how[@]}" --format=lcov >"$2/fc.lcov"
    llvm-cov-19 export "$1" "${how[@]}" --skip-expansions --skip-functions >"$2/fc.json"
}
