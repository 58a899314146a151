# shellcheck shell=bash
# What the packages consist of and what they need, according to the import tables of the files and the packages of the
# libraries.

# Debian packages, for the bills of materials. Some are linked into a file, some are libraries beside it.
PARTS_MODULE=(wxwidgets3.2 lua5.2 cjson robin-map-dev libxxhash-dev libz-mingw-w64 gcc-mingw-w64-x86-64-posix-runtime
    mingw-w64-x86-64-dev)
PARTS_DEVKIT=("${PARTS_MODULE[@]}" googletest)

# imports_of FILE: the libraries that it imports, one line "NAME loaded" or "NAME delayed" each.
imports_of() {
    llvm-readobj-19 --coff-imports "$1" | awk '
        /^(Delay)?Import \{/ { how = /^Delay/ ? "delayed" : "loaded" }
        /^  Name: / { print $2, how }' | LC_ALL=C sort -u
}

# The agent's libraries, for which the folder of the binaries has stand-ins.
is_agents() { [[ $1 =~ ^(vta_core|SLB3|vti)\.dll$ ]]; }

# with_libraries FOLDER [REFUSED]: reads names of files, and prints them and everything that they load from the folder,
# sorted. Libraries for which the command REFUSED succeeds are not followed.
with_libraries() {
    local folder=$1 refused=${2:-false} todo=() file library
    local -A seen=()
    mapfile -t todo
    while [ ${#todo[@]} -gt 0 ]; do
        file=${todo[0]} todo=("${todo[@]:1}")
        [ -z "${seen[$file]:-}" ] || continue
        seen[$file]=1
        while read -r library _; do
            [ ! -f "$folder/$library" ] || "$refused" "$library" || todo+=("$library")
        done < <(imports_of "$folder/$file")
    done
    printf '%s\n' "${!seen[@]}" | LC_ALL=C sort
}

# part_of LIBRARY: the Debian package that a library beside ours comes from.
part_of() {
    case $1 in
    wxbase32u_*) echo wxwidgets3.2 ;;
    lua52.dll) echo lua5.2 ;;
    zlib1.dll) echo libz-mingw-w64 ;;
    libstdc++-6.dll | libgcc_s_*.dll) echo gcc-mingw-w64-x86-64-posix-runtime ;;
    libwinpthread-1.dll) echo mingw-w64-x86-64-dev ;;
    *) die "scripts/parts.sh does not know where $1 comes from: add it to part_of" ;;
    esac
}

# version_of PACKAGE: the pinned one, or else the installed one.
version_of() {
    local version
    version=$(awk -v package="$1" '$1 == package { print $2; exit }' "$PINS")
    [ -n "$version" ] || version=$(dpkg-query -W -f='${Version}' "$1" 2>/dev/null) || die "which version of $1 is installed?"
    echo "$version"
}

# write_requirements FOLDER FILE: what the file needs at run time. The folder contains everything that is not part of
# Windows.
write_requirements() {
    local folder=$1 root=$2 files file part library how
    mapfile -t files < <(echo "$root" | with_libraries "$folder" is_agents)
    echo "What $root $(package_version) needs at run time, by the import tables of the file and of the libraries that it loads."
    echo "What is looked up by name at run time is in no import table."
    printf "\nThe agent's libraries:\n"
    while read -r library how; do
        ! is_agents "$library" || echo "  $library, $how"
    done < <(imports_of "$folder/$root" | sed 's/delayed/at its first use/')
    printf "\nOther libraries, of the versions that Debian's packages have:\n"
    for file in "${files[@]}"; do
        [ "$file" != "$root" ] || continue
        part=$(part_of "$file")
        printf '  %-34s %s %s\n' "$file" "$part" "$(version_of "$part")"
    done
    printf '\nLibraries of a 64-bit Windows:\n'
    for file in "${files[@]}"; do
        imports_of "$folder/$file"
    done | while read -r library _; do
        [ -f "$folder/$library" ] || echo "  ${library,,}"
    done | LC_ALL=C sort -u
}

# licence_of PACKAGE: in CycloneDX's form.
licence_of() {
    case $1 in
    wxwidgets3.2) echo '{"expression":"LGPL-2.0-or-later WITH WxWindows-exception-3.1"}' ;;
    lua5.2 | cjson | robin-map-dev) echo '{"license":{"id":"MIT"}}' ;;
    libxxhash-dev) echo '{"license":{"id":"BSD-2-Clause"}}' ;;
    libz-mingw-w64) echo '{"license":{"id":"Zlib"}}' ;;
    gcc-mingw-w64-x86-64-posix-runtime) echo '{"expression":"GPL-3.0-or-later WITH GCC-exception-3.1"}' ;;
    mingw-w64-x86-64-dev) echo '{"license":{"name":"several; see licences/mingw-w64.txt"}}' ;;
    googletest) echo '{"license":{"id":"BSD-3-Clause"}}' ;;
    *) die "scripts/parts.sh does not know the licence of $1: add it to licence_of" ;;
    esac
}

# Where each file of a pinned package comes from, with its checksum.
references_of() {
    local sha path archive separator=
    while read -r sha path; do
        archive=debian
        [[ $path != pool/updates/* ]] || archive=debian-security
        printf '%s{"type":"distribution","url":"https://deb.debian.org/%s/%s","hashes":[{"alg":"SHA-256","content":"%s"}]}' \
            "$separator" "$archive" "$path" "$sha"
        separator=,
    done < <(awk -v package="$1" '$1 == package { print $3, $4 }' "$PINS")
}

# write_component PACKAGE
write_component() {
    local version licence references kind=
    # A failure does not end a command substitution by itself.
    version=$(version_of "$1") || return
    licence=$(licence_of "$1") || return
    references=$(references_of "$1")
    [[ $references != *.dsc* ]] || kind='?arch=source'
    printf '{"type":"library","bom-ref":"%s","name":"%s","version":"%s","purl":"pkg:deb/debian/%s@%s%s","licenses":[%s],"externalReferences":[%s]}' \
        "$1" "$1" "$version" "${1//+/%2B}" "${version//+/%2B}" "$kind" "$licence" "$references"
}

# write_bill NAME FILE PACKAGE...: a bill of materials in CycloneDX's JSON.
write_bill() {
    local name=$1 file=$2 components references sha
    shift 2
    components=$(for part in "$@"; do
        write_component "$part" || exit
        echo
    done | paste -s -d ,)
    references=$(printf '"%s"\n' "$@" | paste -s -d ,)
    sha=$(sha256sum "$file" | cut -d ' ' -f 1)
    cat <<JSON
{"bomFormat":"CycloneDX","specVersion":"1.5","version":1,
"serialNumber":"urn:uuid:$(echo "$name $(package_version) $sha $components" | sha256sum |
        sed -E 's/^(.{8})(.{4})(.{3})(.{3})(.{12}).*/\1-\2-5\3-8\4-\5/')",
"metadata":{"timestamp":"$(date -u -d "@$(package_time)" +%Y-%m-%dT%H:%M:%SZ)","component":{"type":"application","bom-ref":"$name",
"name":"$name","version":"$(package_version)","licenses":[{"license":{"id":"MIT"}}],
"hashes":[{"alg":"SHA-256","content":"$sha"}]}},
"components":[$components],
"dependencies":[{"ref":"$name","dependsOn":[$references]}]}
JSON
}
