# shellcheck shell=bash
# Lanes for test programs: each is one processor with a Wine prefix, and so a Wine server, of its own. A program under Wine often
# waits for its server, which costs most where the two run on different processors.

# processors: those that this process may use, one a line.
processors() {
    taskset -cp $$ | sed 's/.*: //' | tr ',' '\n' | awk -F- '{ for (i = $1; i <= $NF; i++) print i }'
}

# lane_prefix PROCESSOR: the prefix of its lane.
lane_prefix() { echo "$WINEPREFIX-$1"; }

# prepare_lanes SLOTS: a lane for each of at most $JOBS processors, for so many programs side by side. ctest chooses among them, and
# tells scripts/run-apart.sh in CTEST_RESOURCE_GROUP_0_LANE.
prepare_lanes() {
    local slots=$1 ids id separator=''
    mapfile -t ids < <(processors | head -n "$JOBS")
    for id in "${ids[@]}"; do
        (WINEPREFIX=$(lane_prefix "$id") && prefix_is_ready) || copy_prefix "$(lane_prefix "$id")"
    done
    {
        echo '{"version": {"major": 1, "minor": 0}, "local": [{"lane": ['
        for id in "${ids[@]}"; do
            echo "$separator{\"id\": \"$id\", \"slots\": $slots}"
            separator=,
        done
        echo ']}]}'
    } >"$BUILD/lanes.json"
    CTEST+=(--resource-spec-file "$BUILD/lanes.json")
}

# copy_prefix FOLDER: leaves a copy of the prefix there. The files are links, since Wine replaces its programs and never writes into
# them; the registry it writes in place where a file has several links.
copy_prefix() {
    local file
    rm -rf "$1" "$1.new"
    cp -al "$WINEPREFIX" "$1.new" 2>/dev/null || cp -a "$WINEPREFIX/." "$1.new"
    for file in "$WINEPREFIX"/*.reg; do cp -a --remove-destination "$file" "$1.new/"; done
    mv "$1.new" "$1"
}
