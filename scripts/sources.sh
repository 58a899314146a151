# shellcheck shell=bash
# Packages of the libraries: fetched from a Debian mirror into the cache, each file compared with its pinned SHA-256,
# and unpacked when they are needed. For libraries that are built, these are the source packages, with the
# distribution's patches.

PINS=$ROOT/scripts/libraries.pins
DOWNLOADS=$CACHE/downloads

# pins_of PACKAGE...: its lines in the pins.
pins_of() {
    local package
    for package in "$@"; do
        awk -v package="$package" '$1 == package { print; found = 1 } END { exit !found }' "$PINS" ||
            die "$PINS has no files of $package: renew it with scripts/renew-pins"
    done
}

# The mirrors to try: the one that FC_MIRROR names, or those of Debian that apt uses; all of apt's before its first
# update.
mirrors() {
    if [ -n "${FC_MIRROR:-}" ]; then
        echo "${FC_MIRROR%/}"
    elif command -v apt-get >/dev/null; then
        {
            # shellcheck disable=SC2016  # apt-get itself expands these
            apt-get indextargets --format '$(REPO_URI) $(ORIGIN)' 'Created-By: Packages' | sed -n 's,/* Debian$,,p' | grep . ||
                apt-get update --print-uris | sed -n "s,^'\(.*\)/dists/.*InRelease'.*,\1,p"
        } | awk '!seen[$0]++'
    fi
}

# The archive of everything that Debian ever published, on the day of the pins: it still has files that an update has
# replaced.
snapshot() {
    local archive=debian
    [[ $1 != pool/updates/* ]] || archive=debian-security
    echo "https://snapshot.debian.org/archive/$archive/$(sed -n 's/^# As of \([0-9]*\)-\([0-9]*\)-\([0-9]*\)\.$/\1\2\3T000000Z/p' "$PINS")"
}

# download URL FILE: with apt and its proxies, or with curl if there is no apt.
download() {
    local helper=/usr/lib/apt/apt-helper
    case $1 in
    file://*) cp "${1#file://}" "$2" ;;
    *)
        if [ -x $helper ]; then
            $helper -o APT::Sandbox::User="$(id -un)" -o Acquire::Retries=2 -o Acquire::http::Timeout=15 \
                -o Acquire::https::Timeout=15 download-file "$1" "$2"
        else
            curl --fail --silent --show-error --location --connect-timeout 15 --output "$2" "$1"
        fi
        ;;
    esac
}

checksum() { sha256sum "$1" | cut -d ' ' -f 1; }

# has_gone LOG: whether a mirror has answered that there is no such file.
has_gone() { grep -qE ' 404 |error: 404|No such file' "$1"; }

# The tool's own error message.
reason_of() {
    { grep -E '^(E|curl|cp):' "$1" | grep -v 'E: Download Failed' || echo "it says nothing"; } |
        tail -n 1 | sed 's/^E: Failed to fetch [^ ]* *//; s/^[^ ]*: //; s/:$//'
}

# fetch_from FILE SHA256 PATH URL: fetches FILE, or returns false with the reason in TROUBLE.
fetch_from() {
    local file=$1 sha=$2 url=$4/$3 log=$LOGS/fetch.log got
    if ! download "$url" "$file.part" >"$log" 2>&1 </dev/null; then
        rm -f "$file.part"
        if has_gone "$log"; then return 1; fi
        TROUBLE="$url can't be fetched ($(reason_of "$log")): check the network and the disk, or name another Debian mirror with FC_MIRROR, or put the files that scripts/libraries.pins names into $DOWNLOADS"
        return 1
    fi
    got=$(checksum "$file.part")
    if [ "$got" != "$sha" ]; then
        rm -f "$file.part"
        TROUBLE="$url is not the pinned file: its SHA-256 is $got and not $sha; nothing of it is kept. Name another Debian mirror with FC_MIRROR, or see scripts/renew-pins"
        return 1
    fi
    mv "$file.part" "$file"
}

# fetch_file SHA256 PATH: fetches the file into $DOWNLOADS and checks its content.
fetch_file() {
    local sha=$1 path=$2 file=$DOWNLOADS/${2##*/} mirror known TROUBLE=
    if [ -e "$file" ]; then
        [ "$(checksum "$file")" != "$sha" ] || return 0
        say "$file is damaged: fetching it again"
        rm -f "$file"
    fi
    say "fetching ${path##*/}"
    mapfile -t known < <(mirrors)
    [ ${#known[@]} -gt 0 ] || die "apt knows no Debian mirror here: set FC_MIRROR to one (https://www.debian.org/mirror/list)"
    for mirror in "${known[@]}"; do
        ! fetch_from "$file" "$sha" "$path" "$mirror" || return 0
    done
    if [ -z "$TROUBLE" ]; then
        # The mirrors answer, but none has the file.
        [ -n "${FC_MIRROR:-}" ] || ! fetch_from "$file" "$sha" "$path" "$(snapshot "$path")" || return 0
        TROUBLE="no mirror has $path any more (${known[*]}): set FC_MIRROR to $(snapshot "$path"), or renew the pins with scripts/renew-pins"
    fi
    die "$TROUBLE"
}

# fetch_packages PACKAGE...: fetches all their files into $DOWNLOADS.
fetch_packages() {
    local pins sha path
    pins=$(pins_of "$@")
    mkdir -p "$DOWNLOADS" "$LOGS"
    while read -r _ _ sha path; do
        fetch_file "$sha" "$path"
    done <<<"$pins"
}

# unpack PACKAGE FOLDER: unpacks what was fetched. No signature is checked: the checksums are pinned.
unpack() {
    local file
    file=$DOWNLOADS/$(pins_of "$1" | sed -n 's,.*/\(.*\.\(dsc\|deb\)\)$,\1,p')
    rm -rf "$2"
    mkdir -p "$(dirname "$2")" "$LOGS"
    case $file in
    *.deb) dpkg-deb -x "$file" "$2" ;;
    *) dpkg-source --no-check -x "$file" "$2" ;;
    esac >"$LOGS/unpack.log" 2>&1 || die "$file can't be unpacked: $(tail -n 1 "$LOGS/unpack.log")"
}
