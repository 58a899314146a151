#!/usr/bin/env bash
# How the sources of the libraries get into the cache: from simulated mirrors in a folder, with a copy of the scripts.
#   sources-tests.sh XML
# The results go to XML, as GoogleTest writes them.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
XML=$1
# shellcheck source=tests/support/shell-tests.sh
. "$HERE/../support/shell-tests.sh" Sources

CLONE="$WORK/a clone"
PINS=$CLONE/scripts/libraries.pins
DOWNLOADS=$WORK/cache/downloads
MIRROR=$WORK/mirror
mkdir -p "$CLONE/cmake" "$WORK/bin" "$WORK/packages"
cp -r "$HERE/../../scripts" "$CLONE"
cp -r "$HERE/../../cmake/." "$CLONE/cmake"

# make_binary_package NAME FILE, make_source_package NAME FILE: a package that contains the file.
make_binary_package() {
    local tree=$WORK/packages/$1
    mkdir -p "$tree/DEBIAN" "$(dirname "$tree/$2")" "$tree/usr/share/doc/$1"
    echo "$1" | tee "$tree/$2" >"$tree/usr/share/doc/$1/copyright"
    printf 'Package: %s\nVersion: 1.0\nArchitecture: all\nMaintainer: Nobody <nobody@example.com>\nDescription: made up\n' \
        "$1" >"$tree/DEBIAN/control"
    dpkg-deb --root-owner-group -b "$tree" "$WORK/packages/$1_1.0_all.deb" >"$WORK/packages/log"
}
make_source_package() {
    local tree=$WORK/packages/$1
    mkdir -p "$tree/debian/source"
    echo "$1" >"$tree/$2"
    echo "3.0 (native)" >"$tree/debian/source/format"
    printf '%s (1.0) unstable; urgency=low\n\n  * Made up.\n\n -- Nobody <nobody@example.com>  %s\n' \
        "$1" "Thu, 01 Jan 2026 00:00:00 +0000" >"$tree/debian/changelog"
    printf 'Source: %s\nMaintainer: Nobody <nobody@example.com>\n\nPackage: %s\nArchitecture: all\nDescription: made up\n' \
        "$1" "$1" >"$tree/debian/control"
    (cd "$WORK/packages" && dpkg-source -b "$1" >"$WORK/packages/log" 2>&1)
}
make_binary_package robin-map-dev usr/include/tsl/robin_map.h
make_binary_package libxxhash-dev usr/include/xxhash.h
make_source_package cjson cJSON.c

# A fresh mirror and cache, and matching pins.
fresh() {
    local package file
    rm -rf "$MIRROR" "$WORK/cache" "${WORK:?}/bin"
    mkdir -p "$WORK/bin"
    echo "# As of 2026-02-03." >"$PINS"
    for package in robin-map-dev libxxhash-dev cjson; do
        mkdir -p "$MIRROR/pool/$package"
        for file in "$WORK/packages/${package}_"*; do
            cp "$file" "$MIRROR/pool/$package/"
            echo "$package 1.0 $(sha256sum "$file" | cut -d ' ' -f 1) pool/$package/${file##*/}" >>"$PINS"
        done
    done
}

# in_dev VARIABLE=VALUE... -- LINE: runs a line of shell code with the functions of ./dev. Leaves its output in `said`,
# its status in STATUS.
in_dev() {
    local settings=()
    while [ "$1" != -- ]; do
        settings+=("$1")
        shift
    done
    STATUS=0
    # shellcheck disable=SC2016 # expanded by the inner shell
    env -u FC_MIRROR FC_CACHE="$WORK/cache" FC_BUILD="$WORK/build" PATH="$WORK/bin:$PATH" "${settings[@]}" \
        timeout 60 bash -euo pipefail -c '
            CALLER=$PWD
            . "$1/scripts/common.sh"
            . "$1/scripts/sources.sh"
            . "$1/scripts/libraries.sh"
            eval "$2"' in_dev "$CLONE" "$2" >"$WORK/said" 2>&1 </dev/null || STATUS=$?
}

# works: expects that the last line of shell code succeeded.
works() { [ "$STATUS" -eq 0 ] || because "status $STATUS: $(cat "$WORK/said")"; }

# fails_with TEXT: expects that the last line of shell code failed, with one line of error output.
fails_with() {
    [ "$STATUS" -ne 0 ] || because "the status is 0: $(cat "$WORK/said")" || return
    grep 'error:' "$WORK/said" | grep -qF -- "$1" || because "it says: $(cat "$WORK/said")" || return
    [ "$(grep -cv '==>' "$WORK/said")" -eq 1 ] || because "more than one line: $(cat "$WORK/said")"
}

says() { grep -qF -- "$1" "$WORK/said" || because "it says: $(cat "$WORK/said")"; }

holds() { [ "$(cat "$1" 2>&1)" = "$2" ] || because "$1: $(cat "$1" 2>&1)"; }

TheHeadersAreFromThePinnedPackages() {
    local how
    for how in copy: file://; do
        fresh
        in_dev FC_MIRROR="$how$MIRROR/" -- copy_headers
        works || return
        holds "$WORK"/cache/headers/*/include/xxhash.h libxxhash-dev || return
        holds "$WORK"/cache/headers/*/include/tsl/robin_map.h robin-map-dev || return
        [ ! -e "$WORK/cache/src" ] || because "unpacked sources are left" || return
    done
}

# fake_apt MIRRORS UNREAD: simulates what apt reports about its mirrors: those whose lists it has read, and those that
# it has not.
fake_apt() {
    printf '%s' "$1" >"$WORK/bin/read"
    printf '%s' "$2" >"$WORK/bin/unread"
    cat >"$WORK/bin/apt-get" <<'APT'
#!/usr/bin/env bash
case $* in
indextargets*) sed 's/$/ Debian/' "$(dirname "$0")/read" ;;
*--print-uris*) sed "s,.*,'&/dists/bookworm/InRelease' InRelease 0," "$(dirname "$0")/unread" ;;
*) exit 1 ;;
esac
APT
    chmod +x "$WORK/bin/apt-get"
}

TheMirrorsOfAptAreTriedOneAfterTheOther() {
    fresh
    mkdir -p "$WORK/empty"
    fake_apt "copy:$WORK/empty/"$'\n'"copy:$MIRROR/"$'\n' ''
    in_dev -- copy_headers
    works && holds "$WORK"/cache/headers/*/include/xxhash.h libxxhash-dev
}

TheMirrorsOfAnAptWithoutListsAreTried() {
    fresh
    fake_apt '' "copy:$MIRROR"$'\n'
    in_dev -- copy_headers
    works && holds "$WORK"/cache/headers/*/include/xxhash.h libxxhash-dev
}

WithoutMirrorsTheMessageSaysWhatToSet() {
    fresh
    fake_apt '' ''
    in_dev -- copy_headers
    fails_with "apt knows no Debian mirror here: set FC_MIRROR to one"
}

AFileWithAnotherContentIsRefused() {
    fresh
    echo more >>"$MIRROR/pool/libxxhash-dev/libxxhash-dev_1.0_all.deb"
    in_dev FC_MIRROR="copy:$MIRROR" -- copy_headers
    fails_with "pool/libxxhash-dev/libxxhash-dev_1.0_all.deb is not the pinned file: its SHA-256 is" || return
    find "$WORK/cache" -name 'libxxhash-dev_1.0_all.deb*' >"$WORK/left"
    [ ! -s "$WORK/left" ] || because "left: $(cat "$WORK/left")" || return
    [ ! -e "$WORK/cache/headers" ] || because "there are headers"
}

AnotherMirrorIsTriedWhenAContentIsWrong() {
    fresh
    cp -r "$MIRROR" "$WORK/false"
    echo more >>"$WORK/false/pool/libxxhash-dev/libxxhash-dev_1.0_all.deb"
    fake_apt "copy:$WORK/false/"$'\n'"copy:$MIRROR/"$'\n' ''
    in_dev -- copy_headers
    rm -rf "$WORK/false"
    works && holds "$WORK"/cache/headers/*/include/xxhash.h libxxhash-dev
}

ADamagedFileInTheCacheIsFetchedAgain() {
    fresh
    in_dev FC_MIRROR="copy:$MIRROR" -- 'fetch_packages libxxhash-dev'
    works || return
    truncate -s 20 "$DOWNLOADS/libxxhash-dev_1.0_all.deb"
    in_dev FC_MIRROR="copy:$MIRROR" -- copy_headers
    works && says "downloads/libxxhash-dev_1.0_all.deb is damaged: fetching it again" &&
        holds "$WORK"/cache/headers/*/include/xxhash.h libxxhash-dev
}

WithoutANetworkOneLineSaysWhatToDo() {
    local started=$SECONDS
    fresh
    in_dev FC_MIRROR=http://127.0.0.1:9/debian -- copy_headers
    fails_with "put the files that scripts/libraries.pins names into $DOWNLOADS" || return
    # In apt's own words; newer versions print fewer of them.
    grep -qE "can't be fetched \((Could not connect to 127.0.0.1:9 \(.*|Unable to connect to 127.0.0.1:9)\): check" "$WORK/said" ||
        because "it says: $(cat "$WORK/said")" || return
    [ $((SECONDS - started)) -lt 30 ] || because "it took $((SECONDS - started)) s"
}

FilesInTheCacheNeedNoNetwork() {
    fresh
    mkdir -p "$DOWNLOADS"
    cp "$WORK"/packages/*_* "$DOWNLOADS"
    in_dev FC_MIRROR=http://127.0.0.1:9/debian -- copy_headers
    works && holds "$WORK"/cache/headers/*/include/xxhash.h libxxhash-dev
}

AFileThatDebianHasReplacedIsFetchedFromItsArchive() {
    fresh
    rm -rf "$MIRROR/pool/libxxhash-dev"
    fake_apt "copy:$MIRROR/"$'\n' ''
    # shellcheck disable=SC2016 # expanded by the inner shell
    in_dev -- 'download() { echo "asked: $1" >&3; echo "E: x  404  Not Found"; false; }; exec 3>&1; fetch_packages libxxhash-dev'
    says "asked: https://snapshot.debian.org/archive/debian/20260203T000000Z/pool/libxxhash-dev/libxxhash-dev_1.0_all.deb" || return
    in_dev FC_MIRROR="copy:$MIRROR" -- 'fetch_packages libxxhash-dev'
    fails_with "no mirror has pool/libxxhash-dev/libxxhash-dev_1.0_all.deb any more" && says "or renew the pins with scripts/renew-pins"
}

ASourceIsUnpacked() {
    fresh
    in_dev FC_MIRROR="copy:$MIRROR" -- "fetch_packages cjson; unpack cjson '$WORK/cache/unpacked'"
    works && holds "$WORK/cache/unpacked/cJSON.c" cjson
}

APackageThatCannotBeUnpackedIsReportedInOneLine() {
    local file
    for file in cjson/cjson_1.0.dsc libxxhash-dev/libxxhash-dev_1.0_all.deb; do
        fresh
        echo nonsense >"$MIRROR/pool/$file"
        sed -i "s,[0-9a-f]* \(pool/$file\),$(sha256sum "$MIRROR/pool/$file" | cut -d ' ' -f 1) \1," "$PINS"
        in_dev FC_MIRROR="copy:$MIRROR" -- "fetch_packages ${file%/*}; unpack ${file%/*} '$WORK/cache/unpacked'"
        fails_with "${file#*/} can't be unpacked: dpkg-" || return
        [ ! -e "$WORK/cache/unpacked" ] || because "something was unpacked" || return
    done
}

APackageWithoutPinsIsReportedInOneLine() {
    fresh
    sed -i '/^libxxhash-dev /d' "$PINS"
    in_dev FC_MIRROR="copy:$MIRROR" -- 'fetch_packages robin-map-dev libxxhash-dev'
    fails_with "has no files of libxxhash-dev: renew it with scripts/renew-pins"
}

AnotherPinMakesOtherFolders() {
    local before
    fresh
    cat "$HERE/../../scripts/libraries.pins" >"$PINS"
    in_dev -- 'headers_dir; libraries_dir'
    works || return
    before=$(cat "$WORK/said")
    sed -i 's/^\(cjson [^ ]*\)/\1.1/; s/^\(libxxhash-dev [^ ]*\)/\1.1/' "$PINS"
    in_dev -- 'headers_dir; libraries_dir'
    works || return
    [ "$(sort "$WORK/said" <(echo "$before") | uniq -d)" = '' ] || because "$before and $(cat "$WORK/said")"
}

AnotherWayToBuildThemMakesAnotherFolder() {
    local file
    fresh
    cat "$HERE/../../scripts/libraries.pins" >"$PINS"
    in_dev -- libraries_dir
    works || return
    cp "$WORK/said" "$WORK/known"
    for file in clang-mingw64.cmake libraries/CMakeLists.txt stack-guard.cmake runtime/StackGuard.c; do
        echo >>"$CLONE/cmake/$file"
        in_dev -- libraries_dir
        works || return
        ! grep -qxF -f "$WORK/said" "$WORK/known" || because "the same after a change of $file" || return
        cat "$WORK/said" >>"$WORK/known"
    done
}

ADamagedFolderOfTheCacheIsRebuilt() {
    fresh
    in_dev FC_MIRROR="copy:$MIRROR" -- copy_headers
    works || return
    truncate -s 0 "$WORK"/cache/headers/*/include/xxhash.h
    in_dev FC_MIRROR=http://127.0.0.1:9/debian -- copy_headers
    works && says "is damaged: rebuilding it" && holds "$WORK"/cache/headers/*/include/xxhash.h libxxhash-dev || return
    in_dev FC_MIRROR=http://127.0.0.1:9/debian -- copy_headers
    [ ! -s "$WORK/said" ] || because "made once more: $(cat "$WORK/said")"
}

# fake_lists STATUS: simulates apt for renew-pins; each package has two versions, the newer one first.
fake_lists() {
    fake_apt "copy:$MIRROR/"$'\n' ''
    sed -i "s,^\*) .*,*update*) echo 'E: There is no such release'; exit $1 ;;," "$WORK/bin/apt-get"
    cat >"$WORK/bin/apt-cache" <<'APT'
#!/usr/bin/env bash
for version in 1.10 1.9; do
    case $* in
    showsrc*) echo "Package: $3
Version: $version
Checksums-Sha1:
 aaaa 1 $3_$version.dsc
Checksums-Sha256:
 bbbb 1 $3_$version.dsc
 cccc 1 $3_$version.tar.xz
Directory: pool/main/$3
" ;;
    *) echo "Package: $2
Version: $version
Filename: pool/main/$2_$version.deb
SHA1: aaaa
SHA256: dddd
" ;;
    esac
done
APT
    chmod +x "$WORK/bin/apt-cache"
}

# renew ARGS...: runs the copy of renew-pins.
renew() {
    STATUS=0
    env -u FC_MIRROR FC_CACHE="$WORK/cache" FC_BUILD="$WORK/build" PATH="$WORK/bin:$PATH" \
        "$CLONE/scripts/renew-pins" "$@" >"$WORK/said" 2>&1 </dev/null || STATUS=$?
}

RenewedPinsNameTheFilesOfTheNewestVersion() {
    fresh
    fake_lists 0
    renew trixie
    works || return
    [ "$(grep '^lua5.2 ' "$PINS")" = "lua5.2 1.10 bbbb pool/main/lua5.2/lua5.2_1.10.dsc
lua5.2 1.10 cccc pool/main/lua5.2/lua5.2_1.10.tar.xz" ] || because "$(cat "$PINS")" || return
    grep -qx 'libxxhash-dev 1.10 dddd pool/main/libxxhash-dev_1.10.deb' "$PINS" || because "$(cat "$PINS")" || return
    [ "$(grep -c '\.d[es][bc]$' "$PINS")" -eq 5 ] && grep -qx '# Release: trixie.' "$PINS" || because "$(cat "$PINS")" || return
    cp "$PINS" "$WORK/before"
    renew
    works && says "the pins of trixie are up to date" && cmp "$PINS" "$WORK/before"
}

AReleaseThatCannotBeReadKeepsThePins() {
    fresh
    fake_lists 100
    cp "$PINS" "$WORK/before"
    renew nosuch
    fails_with "the lists of nosuch can't be read (E: There is no such release)" && cmp "$PINS" "$WORK/before"
}

for name in TheHeadersAreFromThePinnedPackages TheMirrorsOfAptAreTriedOneAfterTheOther \
    TheMirrorsOfAnAptWithoutListsAreTried WithoutMirrorsTheMessageSaysWhatToSet AFileWithAnotherContentIsRefused \
    AnotherMirrorIsTriedWhenAContentIsWrong ADamagedFileInTheCacheIsFetchedAgain \
    WithoutANetworkOneLineSaysWhatToDo FilesInTheCacheNeedNoNetwork \
    AFileThatDebianHasReplacedIsFetchedFromItsArchive ASourceIsUnpacked APackageThatCannotBeUnpackedIsReportedInOneLine \
    APackageWithoutPinsIsReportedInOneLine AnotherPinMakesOtherFolders AnotherWayToBuildThemMakesAnotherFolder \
    ADamagedFolderOfTheCacheIsRebuilt \
    RenewedPinsNameTheFilesOfTheNewestVersion AReleaseThatCannotBeReadKeepsThePins; do
    test_case "$name"
done
write_results sources-tests "$XML"
