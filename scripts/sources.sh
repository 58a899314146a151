# shellcheck shell=bash
# Sources of the libraries that are built for Windows here: fetched by apt, with the distribution's
# patches, into the cache. A package counts as fetched only when its folder has been renamed into place.

# Source package : its folder in the cache.
SOURCES=(wxwidgets3.2:wx lua5.2:lua cjson:cjson)
SOURCE_TRIES=3

# deb-src lines for the mirrors of this Debian release that the system already uses.
source_lines() {
    # shellcheck disable=SC2016  # apt-get itself expands these
    apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT) $(ORIGIN)' 'Created-By: Packages' |
        awk '$4 == "Debian" && $2 !~ /backports/ {
            print "deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg]", $1, $2, $3 }' | sort -u
}

# A sources list of our own; the system's lists stay as they are.
write_source_list() {
    local dir=$1
    mkdir -p "$dir/lists/partial"
    source_lines >"$dir/sources.list"
    if [ ! -s "$dir/sources.list" ]; then
        update_package_lists
        source_lines >"$dir/sources.list"
    fi
    [ -s "$dir/sources.list" ] ||
        die "apt knows no Debian mirror: add one to /etc/apt/sources.list (see 'man sources.list') and try again"
}

apt_source() {
    local dir=$1
    shift
    apt-get -o Dir::Etc::SourceList="$dir/sources.list" -o Dir::Etc::SourceParts=- \
        -o Dir::State::Lists="$dir/lists" -o Dir::Cache::pkgcache= -o Dir::Cache::srcpkgcache= \
        -o APT::Sandbox::User="$(id -un)" -o APT::Get::List-Cleanup=0 "$@"
}

fetch_source() {
    local dir=$1 package=$2 folder=$3 work
    work=$(mktemp -d "$CACHE/fetch.XXXXXX")
    (
        cd "$work" || exit 1
        apt_source "$dir" source --download-only "$package" && dpkg-source --no-check -x ./*.dsc tree
    ) || {
        rm -rf "$work"
        return 1
    }
    basename "$work"/*.dsc .dsc >"$work/tree/.fc-version"
    mv "$work/tree" "$CACHE/src/$folder" && rm -rf "$work"
}

# Leaves the sources in $CACHE/src/{wx,lua,cjson}.
fetch_sources() {
    local entry package folder try dir=$CACHE/apt
    mkdir -p "$CACHE/src"
    for entry in "${SOURCES[@]}"; do
        package=${entry%%:*} folder=${entry##*:}
        [ -f "$CACHE/src/$folder/.fc-version" ] && continue
        if [ ! -s "$dir/ready" ]; then
            write_source_list "$dir"
            quietly sources-update.log "reading the list of source packages" apt_source "$dir" update
            date >"$dir/ready"
        fi
        rm -rf "$CACHE/src/$folder"
        for ((try = 1; ; try++)); do
            say "fetching the source of $package (try $try of $SOURCE_TRIES)"
            mkdir -p "$LOGS"
            fetch_source "$dir" "$package" "$folder" >"$LOGS/fetch-$folder.log" 2>&1 </dev/null && break
            tail -n 5 "$LOGS/fetch-$folder.log" >&2
            [ "$try" -lt "$SOURCE_TRIES" ] ||
                die "the source of $package could not be fetched; see $LOGS/fetch-$folder.log, check the network and run again"
            rm -f "$dir/ready"
            sleep $((try * 3))
            apt_source "$dir" update >>"$LOGS/fetch-$folder.log" 2>&1 || true
        done
    done
}
