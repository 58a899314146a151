#!/usr/bin/env bash
# Makes the packages of this build, twice, and checks them.
#   packaging-tests.sh BUILD LIBRARIES HEADERS PACKAGES XML
# The first two packages are left in the folder PACKAGES, the results in XML, as GoogleTest writes them.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
BUILD=$1 LIBRARIES=$2 HEADERS=$3 PACKAGES=$4 XML=$5
REPOSITORY=$(cd "$HERE/../.." && pwd)
# shellcheck source=tests/support/shell-tests.sh
. "$HERE/../support/shell-tests.sh" Packaging

export SOURCE_DATE_EPOCH=1700000000

# packs PLACE: makes the packages of a clone and a build folder there, in PLACE/dist.
packs() {
    mkdir -p "$1/clone" "$1/build"
    cp -R "$REPOSITORY"/{scripts,docs,examples,packaging,LICENSE,CHANGELOG.md,CONTRIBUTING.md} "$1/clone"
    ln -s "$BUILD"/{bin,version,test-programs.txt} "$1/build/"
    # shellcheck disable=SC2016 # expanded by the inner shell
    FC_BUILD=$1/build bash -euo pipefail -c '
        CALLER=$PWD
        for script in common folders packages sources libraries parts package; do
            . "$1/clone/scripts/$script.sh"
        done
        libraries=$2 headers=$3
        libraries_dir() { echo "$libraries"; }
        headers_dir() { echo "$headers"; }
        make_packages "$1/dist"' packs "$1" "$LIBRARIES" "$HEADERS" >"$WORK/log" 2>&1 ||
        because "$(tail -n 3 "$WORK/log")" || return
    ls "$1"/dist/fc-[0-9]*.zip "$1"/dist/fc-devkit-*.zip >"$WORK/log" 2>&1 || because "there are only $(ls "$1/dist")"
}

TwoFoldersGiveTheSameBytes() {
    local file
    packs "$WORK/one" || return
    sleep 2 # as precise as the times in a zip file
    (umask 077 && TZ=Asia/Tokyo LC_ALL=C packs "$WORK/another place") || because "$(tail -n 3 "$WORK/log")" || return
    for file in "$WORK"/one/dist/*; do
        cmp "$file" "$WORK/another place/dist/${file##*/}" >"$WORK/log" 2>&1 || because "$(cat "$WORK/log")" || return
    done
    rm -rf "$PACKAGES"
    cp -R "$WORK/one/dist" "$PACKAGES"
    for file in fc-[0-9]* fc-devkit-*; do
        # shellcheck disable=SC2086 # a pattern
        unzip -q "$WORK"/one/dist/$file.zip -d "$WORK/unpacked" || because "$file can't be unpacked" || return
    done
    MODULE=$(echo "$WORK"/unpacked/fc-[0-9]*) DEVKIT=$(echo "$WORK"/unpacked/fc-devkit-*)
}

TheNamesContainTheCommit() {
    local version
    version=$(sed -n 's/.*"\(.*\)"$/\1/p' "$BUILD/version/Version.h" | tr + -)
    [[ $version =~ ^[0-9.]+-(unknown|g[0-9a-f]{10}(-dirty)?)$ ]] || because "the version is '$version'" || return
    [ "${MODULE##*/} ${DEVKIT##*/}" = "fc-$version fc-devkit-$version" ] || because "there are $(ls "$WORK/unpacked")"
}

TheModuleIsTheOneThatTheTestsLoad() {
    cmp "$BUILD/bin/fc.dll" "$MODULE/fc.dll" >"$WORK/log" 2>&1 || because "$(cat "$WORK/log")" || return
    cmp "$BUILD/bin/fc.dll" "$DEVKIT/bin/fc.dll" >"$WORK/log" 2>&1 || because "$(cat "$WORK/log")"
}

TheModulesPackageIsComplete() {
    (cd "$MODULE" && find . -type f | LC_ALL=C sort | grep -v '^\./licences/') >"$WORK/names"
    [ "$(tr '\n' ' ' <"$WORK/names")" = './CHANGELOG.md ./REQUIREMENTS.txt ./SHA256SUMS ./fc.cdx.json ./fc.dll ./fc.pdb ./lua/fc.d.lua ' ] ||
        because "it has $(tr '\n' ' ' <"$WORK/names")" || return
    (cd "$MODULE/licences" && ls fc.txt wxWidgets.txt Lua.txt cJSON.txt zlib.txt mingw-w64.txt GCC-runtime.txt robin-map.txt \
        xxHash.txt) >"$WORK/log" 2>&1 || because "$(grep cannot "$WORK/log")"
}

# symbols_match IMAGE: the PDB file beside it.
symbols_match() {
    local of_image of_symbols
    of_image=$(llvm-readobj-19 --coff-debug-directory "$1" | sed -n 's/.*PDBGUID: {\(.*\)}.*/\1/p')
    of_symbols=$(llvm-pdbutil-19 dump --summary "${1%.*}.pdb" 2>&1 | sed -n 's/.*GUID: {\(.*\)}.*/\1/p')
    [ "${of_image:-none}" = "$of_symbols" ] || because "${1##*/} has '$of_image', its PDB file '$of_symbols'"
}

TheSymbolsMatchTheModule() { symbols_match "$MODULE/fc.dll"; }

# All but what Debian's packages contain as it is.
EveryProgramAndLibraryOfTheDevkitHasItsSymbols() {
    local image count=0
    for image in "$DEVKIT"/bin/*.{exe,dll}; do
        case ${image##*/} in libstdc++-6.dll | libgcc_s_*.dll | libwinpthread-1.dll | zlib1.dll) continue ;; esac
        symbols_match "$image" || return
        count=$((count + 1))
    done
    [ $count -ge 25 ] || because "it has only $count"
}

AMissingPdbFileIsAnError() {
    local build=$WORK/incomplete
    mkdir -p "$build"
    cp -Rs "$BUILD/bin" "$build/"
    ln -s "$BUILD"/{version,test-programs.txt} "$build/"
    rm "$build/bin/lua52.pdb"
    ! BUILD=$build packs "$WORK/third" 2>"$WORK/said" || because "it is packed" || return
    grep -qF 'lua52.pdb' "$WORK/log" || because "it says: $(tail -n 3 "$WORK/log")"
}

# What is in a library of objects is linked only if something refers to it: the function that ends the process shows that
# others check their stack.
TheModuleAndTheLibrariesCheckTheirStack() {
    local image
    for image in "$DEVKIT"/bin/{fc,lua52,wxbase32u_*}.dll; do
        llvm-pdbutil-19 dump --publics "${image%.*}.pdb" | grep '.__stack_chk_fail.' >/dev/null ||
            because "${image##*/} does not" || return
        ! llvm-readobj-19 --coff-imports "$image" | grep 'Name: libssp' || because "${image##*/} needs GCC's library for it" || return
    done
    llvm-nm-19 "$LIBRARIES/lib/libcjson.a" | grep ' U __stack_chk_fail$' >/dev/null || because "cJSON does not"
}

# With another program than the one that made the list.
TheRequirementsMatchTheImportsOfTheModule() {
    local library
    x86_64-w64-mingw32-objdump -p "$MODULE/fc.dll" | sed -n 's/.*DLL Name: //p' >"$WORK/imports"
    [ "$(wc -l <"$WORK/imports")" -gt 5 ] || because "the module imports $(cat "$WORK/imports")" || return
    sed -n 's/^  \([^ ,]*\).*/\1/p' "$MODULE/REQUIREMENTS.txt" >"$WORK/names"
    while read -r library; do
        grep -qixF "$library" "$WORK/names" || because "$library is not among them" || return
    done <"$WORK/imports"
    grep -qx '  vti.dll, at its first use' "$MODULE/REQUIREMENTS.txt" || because "vti.dll is not told as delayed" || return
    ! grep -qE '^  (lib|lua|wx|zlib)[^ ]*$' "$MODULE/REQUIREMENTS.txt" ||
        because "no version: $(grep -E '^  (lib|lua|wx|zlib)[^ ]*$' "$MODULE/REQUIREMENTS.txt")"
}

# json FILE PATH...: prints the value there; the length of a list.
json() {
    cat >"$WORK/json.cmake" <<'CMAKE'
file(READ "${FILE}" text)
foreach(path IN LISTS PATHS)
    string(REPLACE "." ";" path "${path}")
    string(JSON kind TYPE "${text}" ${path})
    if(kind STREQUAL ARRAY)
        string(JSON value LENGTH "${text}" ${path})
    else()
        string(JSON value GET "${text}" ${path})
    endif()
    message("${value}")
endforeach()
CMAKE
    local file=$1
    shift
    cmake "-DFILE=$file" "-DPATHS=$(
        IFS=';'
        echo "$*"
    )" -P "$WORK/json.cmake" 2>&1
}

TheBillOfMaterialsHasEachPinnedFile() {
    local bill=$MODULE/fc.cdx.json count i
    [ "$(json "$bill" bomFormat specVersion | paste -s)" = $'CycloneDX\t1.5' ] || because "$(head -c 300 "$bill")" || return
    [ "$(json "$bill" metadata.component.hashes.0.content)" = "$(sha256sum <"$MODULE/fc.dll" | cut -d ' ' -f 1)" ] ||
        because "it is of another module" || return
    count=$(json "$bill" components)
    for ((i = 0; i < count; i++)); do
        json "$bill" components.$i.name components.$i.version components.$i.externalReferences | paste -s -d ' '
    done >"$WORK/components"
    grep -v '^#' "$REPOSITORY/scripts/libraries.pins" | while read -r name version _; do echo "$name $version"; done |
        uniq -c | while read -r files name version; do
        grep -qxF "$name $version $files" "$WORK/components" || because "no $name $version with $files files" || return
    done || return
    grep -v '^#' "$REPOSITORY/scripts/libraries.pins" | cut -d ' ' -f 3 >"$WORK/sums"
    [ "$(grep -oFf "$WORK/sums" "$bill" | sort -u | wc -l)" = "$(sort -u "$WORK/sums" | wc -l)" ] || because "a checksum is missing"
}

TheChecksumsCoverAllFiles() {
    local folder
    for folder in "$MODULE" "$DEVKIT"; do
        (cd "$folder" && sha256sum --quiet --strict -c SHA256SUMS) >"$WORK/log" 2>&1 || because "$(tail -n 3 "$WORK/log")" || return
        [ "$(find "$folder" -type f ! -name SHA256SUMS | wc -l)" = "$(wc -l <"$folder/SHA256SUMS")" ] ||
            because "${folder##*/} has files without a checksum" || return
    done
}

TheDevkitHasEachTestProgram() {
    local program
    [ "$(wc -l <"$BUILD/test-programs.txt")" -ge 20 ] || because "too few are listed" || return
    while read -r program; do
        [ -s "$DEVKIT/bin/$program.exe" ] || because "$program.exe is missing" || return
    done <"$BUILD/test-programs.txt"
    [ "$(tr -d '\r' <"$DEVKIT/bin/test-programs.txt")" = "$(cat "$BUILD/test-programs.txt")" ] || because "the list is another one" || return
    [ -s "$DEVKIT/bin/test-data/docs/host.md" ] || because "their data are missing"
}

# Those of CONTRIBUTING.md lead to files of a clone.
TheLinksOfTheDevkitsPagesLeadToItsFiles() {
    local page link count=0
    for page in "$DEVKIT"/README.md "$DEVKIT"/docs/*.md; do
        while read -r link; do
            [ -e "${page%/*}/$link" ] || because "${page#"$DEVKIT/"} links to $link" || return
            count=$((count + 1))
        done < <(sed 's/](/\n&/g' "$page" | sed -n 's/^](\([^)#: ]\{1,\}\)[)#].*/\1/p')
    done
    [ $count -ge 50 ] || because "they have only $count links"
}

# None of ours is signed, and none needs to be: nothing loads them.
TheDevkitHasNoDriver() {
    ! find "$DEVKIT" -name '*.sys' | grep . || because "it has one"
}

# bytes_of ENCODING TEXT: as a pattern.
bytes_of() { printf %s "$2" | iconv -t "$1" | od -An -v -tx1 | tr -d '\n' | sed 's/ /\\x/g'; }

# With either slash, since PDB files have the names of objects with the other one, and as wide characters.
NoFileNamesAFolderOfThisMachine() {
    local found folder folders=()
    for folder in "$REPOSITORY" "$BUILD" "$LIBRARIES" "${LIBRARIES%/libraries/*}" "$HEADERS"; do
        folders+=("$(bytes_of UTF-8 "$folder/")" "$(bytes_of UTF-8 "${folder//\//\\}\\")" "$(bytes_of UTF-16LE "$folder/")")
    done
    found=$(LC_ALL=C grep -rlaP "$(IFS='|' && echo "${folders[*]}")" "$WORK/unpacked") || true
    [ -z "$found" ] || because "they are in ${found//$WORK\/unpacked\//}"
}

for name in TwoFoldersGiveTheSameBytes TheNamesContainTheCommit TheModuleIsTheOneThatTheTestsLoad \
    TheModulesPackageIsComplete TheSymbolsMatchTheModule EveryProgramAndLibraryOfTheDevkitHasItsSymbols \
    AMissingPdbFileIsAnError TheModuleAndTheLibrariesCheckTheirStack TheRequirementsMatchTheImportsOfTheModule \
    TheBillOfMaterialsHasEachPinnedFile TheChecksumsCoverAllFiles TheDevkitHasEachTestProgram \
    TheLinksOfTheDevkitsPagesLeadToItsFiles TheDevkitHasNoDriver \
    NoFileNamesAFolderOfThisMachine; do
    test_case "$name"
done
write_results packaging-tests "$XML"
