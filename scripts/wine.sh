# shellcheck shell=bash
# Our own Wine prefix, and programs run in it.

WINE_OLDEST=8

export WINEPREFIX=$BUILD/wine WINEDEBUG=${WINEDEBUG:--all} WINEARCH=win64
# No menu entries, no browser or .NET offers: the prefix is for tests only.
export WINEDLLOVERRIDES="winemenubuilder.exe=d;mscoree=d;mshtml=d"

# Debian's wrapper warns about a missing 32-bit Wine; the program behind it does not.
wine_program() {
    if [ -n "${FC_WINE:-}" ]; then
        from_caller "$FC_WINE"
    elif [ -x /usr/lib/wine/wine64 ]; then
        echo /usr/lib/wine/wine64
    else
        command -v wine
    fi
}

wine_server() {
    local beside
    beside=$(dirname "$(wine_program)")/wineserver
    if [ -x "$beside" ]; then "$beside" "$@"; else wineserver "$@"; fi
}

wine_version() { "$(wine_program)" --version 2>/dev/null; }

require_wine() {
    local version
    version=$(wine_version) || die "Wine does not start: try '$(wine_program) --version'"
    [[ $version =~ ^wine-([0-9]+) && ${BASH_REMATCH[1]} -ge $WINE_OLDEST ]] ||
        die "this needs Wine $WINE_OLDEST or newer, and here is $version: install a newer one, as Debian 12 has it"
}

# Whether the prefix is complete, and was made by this Wine for this user, as Wine demands.
prefix_is_ready() {
    local file
    [ -O "$WINEPREFIX" ] && [ "$(cat "$WINEPREFIX/ready" 2>/dev/null)" = "$(wine_version)" ] || return 1
    for file in system.reg user.reg userdef.reg; do
        grep -qs '^WINE REGISTRY' "$WINEPREFIX/$file" || return 1
    done
    [ -s "$WINEPREFIX/drive_c/windows/system32/kernel32.dll" ] && [ -e "$WINEPREFIX/dosdevices/z:" ]
}

make_wine_prefix() {
    exec 7>&- 8>&- 9>&- # Wine's server lives on, and would hold the locks
    wine_server -k || true # a server of an earlier prefix
    rm -rf "$WINEPREFIX"
    mkdir -p "$WINEPREFIX"
    "$(wine_program)" wineboot --init
    # The registry files are written when the server of this prefix ends.
    wine_server -w
    wine_version >"$WINEPREFIX/ready"
    prefix_is_ready
}

# Prepares a prefix that nobody removes before this ./dev ends.
prepare_wine() {
    require_wine
    prefix_is_ready || {
        lock_programs --exclusive
        prefix_is_ready || quietly wineboot.log "creating a private Wine prefix" make_wine_prefix
    }
    lock_programs --shared
    remove_left_folders
}

# Killed programs leave their temporary folders. While no other program runs, all of them are leftovers.
remove_left_folders() {
    ! flock -n --exclusive 8 || rm -rf "$WINEPREFIX"{,-[0-9]*}/drive_c/users/*/{,AppData/Local/}Temp/fc-*
    flock --shared 8
}

# run_windows PROGRAM ARGS...: runs it here, under Wine, and ends with its status.
run_windows() { "$ROOT/scripts/run-windows.sh" "$(wine_program)" "$@"; }

run_host() { run_windows "$BUILD/bin/fc-host.exe" "$@"; }

# host_is_ready: whether it can run without a build or a new prefix.
host_is_ready() { [ -x "$BUILD/bin/fc-host.exe" ] && prefix_is_ready; }

run_bench() { run_windows "$BUILD/bin/fc-bench.exe" "$@"; }
