# shellcheck shell=bash
# ./dev package: the packages that are handed out. Two clones of a commit, in any folders, give the same bytes.

# With the commit, as in the binaries.
package_version() { sed -n 's/^#define FC_VERSION "\(.*\)"$/\1/p' "$BUILD/version/Version.h"; }

# package_name PREFIX: for files and folders, since some programs accept no + in names.
package_name() { echo "$1-$(package_version | tr + -)"; }

# The time of all packed files, in seconds since 1970: the commit's, or a fixed one for sources that are not a clone.
package_time() {
    local time=${SOURCE_DATE_EPOCH:-}
    [ -n "$time" ] || [[ $(package_version) == *unknown ]] || time=$(git -C "$ROOT" log -1 --format=%ct)
    echo "${time:-631152000}"
}

# pack FOLDER ZIP: the folder with its contents. The result does not depend on when, where or by whom it is packed.
# Higher compression would save a twentieth, in more than twice the time.
pack() {
    local folder=$1 zip=$2
    find "$folder" -type d -exec chmod 755 {} + -o -exec chmod 644 {} +
    find "$folder" -exec touch -d "@$(package_time)" {} +
    rm -f "$zip.part"
    (cd "$(dirname "$folder")" && find "$(basename "$folder")" | LC_ALL=C sort | TZ=UTC zip -q -4 -X -@ "$zip.part") &&
        unzip -tq "$zip.part" >/dev/null || {
        rm -f "$zip.part"
        die "$zip can't be packed: check whether the disk is full"
    }
    mv "$zip.part" "$zip"
    say "packed $zip, $(du -h "$zip" | cut -f 1)"
}

write_checksums() {
    (cd "$1" && find . -type f ! -name SHA256SUMS -printf '%P\n' | LC_ALL=C sort | xargs -d '\n' sha256sum >SHA256SUMS)
}

# Our licence, and those of everything that the package links, contains or needs.
copy_licences() {
    mkdir -p "$1/licences"
    cp "$ROOT/LICENSE" "$1/licences/fc.txt"
    cp "$(libraries_dir)"/licences/*.txt "$(headers_dir)"/licences/*.txt "$1/licences/"
}

# fc.dll as the tests load it, and the documents about it.
make_module_package() {
    local folder=$1 bin=$BUILD/bin
    mkdir -p "$folder/lua"
    cp "$bin/fc.dll" "$bin/fc.pdb" "$ROOT/CHANGELOG.md" "$folder/"
    cp "$ROOT/docs/lua/fc.d.lua" "$folder/lua/"
    copy_licences "$folder"
    write_requirements "$bin" fc.dll >"$folder/REQUIREMENTS.txt"
    write_bill fc "$bin/fc.dll" "${PARTS_MODULE[@]}" >"$folder/fc.cdx.json"
    write_checksums "$folder"
}

# Libraries as Debian's packages contain them. The others, and all programs, were linked here, each with a PDB file.
is_prebuilt() { [[ $1 =~ ^(libstdc\+\+-6|libgcc_s_[a-z]+-1|libwinpthread-1|zlib1)\.dll$ ]]; }

# copy_with_symbols FILE FOLDER
copy_with_symbols() { cp "$1" "$2/" && { is_prebuilt "${1##*/}" || cp "${1%.*}.pdb" "$2/"; }; }

test_programs() { cat "$BUILD/test-programs.txt"; }

# The devkit's programs, with the libraries that they load and all PDB files. The tests' kernel driver stays out.
copy_binaries() {
    local to=$1 bin=$BUILD/bin program file
    mkdir -p "$to"
    {
        for program in fc-host fc-launch fc-bench $(test_programs); do
            echo "$program.exe"
        done
        echo fc.dll # which nothing imports
    } >"$to/roots"
    while read -r file; do
        copy_with_symbols "$bin/$file" "$to" || die "$bin/$file or its PDB file is missing: build it with ./dev package"
    done < <(with_libraries "$bin" <"$to/roots")
    rm "$to/roots"
    cp "$bin/ConnMetricsPeer.lua" "$to/"
    cp -R "$bin/test-data" "$to/"
}

# Everything that runs on 64-bit Windows without a build.
make_devkit_package() {
    local folder=$1
    mkdir -p "$folder"
    copy_binaries "$folder/bin"
    cp "$ROOT"/packaging/accept.lua "$folder/bin/"
    test_programs | sed 's/$/\r/' >"$folder/bin/test-programs.txt"
    sed 's/$/\r/' "$ROOT/packaging/accept.cmd" >"$folder/accept.cmd"
    cp "$ROOT/packaging/README.md" "$ROOT/CHANGELOG.md" "$ROOT/CONTRIBUTING.md" "$folder/"
    cp -R "$ROOT/docs" "$ROOT/examples" "$folder/"
    copy_licences "$folder"
    cp /usr/share/doc/googletest/copyright "$folder/licences/GoogleTest.txt"
    write_bill fc-devkit "$BUILD/bin/fc-host.exe" "${PARTS_DEVKIT[@]}" >"$folder/fc-devkit.cdx.json"
    write_checksums "$folder"
}

# make_packages FOLDER: the two zip files.
make_packages() {
    local to=$1 stage=$BUILD/package kind name
    mkdir -p "$to"
    for kind in module:fc devkit:fc-devkit; do
        name=$(package_name "${kind#*:}")
        rm -rf "$stage"
        mkdir -p "$stage"
        "make_${kind%:*}_package" "$stage/$name"
        pack "$stage/$name" "$to/$name.zip"
    done
    rm -rf "$stage"
}

# package_again: builds the commit a second time, only from the downloads: in another clone, with another build folder
# and another cache. Its packages must be identical to the first.
package_again() {
    local second name status=0
    [[ $(package_version) =~ \+g[0-9a-f]+$ ]] || die "a second clone has only what is committed, but this is $(package_version)"
    second=$(mktemp -d)/"a second place"
    git clone -q "$ROOT" "$second/clone"
    mkdir -p "$second/cache"
    touch "$second/cache/$MARKER"
    [ ! -d "$CACHE/downloads" ] || cp -R "$CACHE/downloads" "$second/cache/"
    env -u FC_OUT FC_BUILD="$second/build" FC_CACHE="$second/cache" "$second/clone/dev" package
    for name in fc fc-devkit; do
        name=$(package_name "$name").zip
        cmp "$DIST/$name" "$second/clone/dist/$name" && say "$name is identical in both" || status=1
    done
    [ $status -eq 0 ] || die "the packages differ; the second ones are in $second/clone/dist"
    rm -rf "$(dirname "$second")"
}
