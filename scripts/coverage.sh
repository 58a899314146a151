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

# unreached LCOV: prints a line "FILE LINES REACHED BRANCHES REACHED" for each source, and a line "FILE:LINE: WHAT" for what is not
# reached. Left out is what a comment in the source gives a reason for:
#   code;  // not reached: REASON       that line
#   // not reached: REASON              alone: the statement that follows, to its end
unreached() {
    awk -v root="$ROOT/" -f "$ROOT/scripts/coverage.awk" "$1"
}

# run_coverage [PROGRAM...]: with all test programs, or the named ones. Returns false if a test fails: then the figures mean little.
run_coverage() {
    local profiles=$BUILD/profiles out=$OUT/coverage status=0 entries image=$BUILD/covered/fc.dll
    mapfile -t entries < <(replaced_entries "$@")
    replace_module "${image%/*}"
    rm -rf "$profiles" "$out"
    mkdir -p "$profiles" "$out"
    CTEST+=(-C Replaced)
    FC_PROFILES=Z:${profiles//\//\\} run_tests "${entries[@]}" || status=1
    [ -n "$(ls -A "$profiles")" ] || die "the tests left no profile in $profiles"
    quietly coverage.log "merging the profiles" llvm-profdata-19 merge --sparse -o "$out/fc.profdata" "$profiles"/*.profraw
    export_coverage "$image" "$out"
    unreached "$out/fc.lcov"
    echo "The page is $(to_caller "$out/index.html")"
    return $status
}

# export_coverage IMAGE FOLDER: from fc.profdata the page and fc.lcov.
export_coverage() {
    # Of the libraries' headers only what is expanded into the module would be known.
    local how=(--instr-profile="$2/fc.profdata" "--path-equivalence=.,$ROOT" --compilation-dir="$ROOT"
        --ignore-filename-regex='(^|/)(usr|libraries|headers)/')
    llvm-cov-19 show "$1" "${how[@]}" --format=html --show-branches=count --output-dir="$2" >/dev/null
    llvm-cov-19 export "$1" "${how[@]}" --format=lcov >"$2/fc.lcov"
}
