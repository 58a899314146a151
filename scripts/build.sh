# shellcheck shell=bash
# From a fresh machine to built binaries and a place to run them.

# Folders of the caller's, which compilers would take and name in PDB files.
unset LIBRARY_PATH CPATH C_INCLUDE_PATH CPLUS_INCLUDE_PATH

# with_lock FOLDER COMMAND...: one ./dev at a time.
with_lock() {
    local folder=$1
    shift
    mkdir -p "$folder"
    exec 9>"$folder/lock"
    flock -n 9 || {
        say "another ./dev is at work in $folder; waiting for it"
        flock 9
    }
    "$@"
    exec 9>&-
}

make_libraries() {
    build_libraries
    copy_headers
}

# Debian's wrapper warns about a missing 32-bit Wine; the program behind it does not.
wine_program() {
    if [ -x /usr/lib/wine/wine64 ]; then echo /usr/lib/wine/wine64; else command -v wine; fi
}

STRICT=OFF # whether warnings are errors; a build folder for which they once were stays so

has_strictness() { grep -qsxF "CMAKE_COMPILE_WARNING_AS_ERROR:UNINITIALIZED=$1" "$BUILD/CMakeCache.txt"; }

# Whether the build folder was configured for this clone, these libraries and this Wine.
is_configured() {
    [ -f "$BUILD/build.ninja" ] && has_strictness "$STRICT" && grep -qxF "FC_LIBRARIES:PATH=$(libraries_dir)" "$BUILD/CMakeCache.txt" &&
        grep -qxF "FC_HEADERS:PATH=$(headers_dir)" "$BUILD/CMakeCache.txt" &&
        grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$ROOT" "$BUILD/CMakeCache.txt" &&
        grep -qF "CMAKE_CROSSCOMPILING_EMULATOR:UNINITIALIZED=$(wine_program)" "$BUILD/CMakeCache.txt"
}

configure_build() {
    if has_strictness ON; then STRICT=ON; fi
    is_configured && return 0
    rm -rf "$BUILD/CMakeCache.txt" "$BUILD/CMakeFiles"
    quietly configure.log "configuring" cmake -G Ninja -S "$ROOT" -B "$BUILD" \
        -DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_COMPILE_WARNING_AS_ERROR=$STRICT \
        -DFC_LIBRARIES="$(libraries_dir)" -DFC_HEADERS="$(headers_dir)" -DCMAKE_CROSSCOMPILING_EMULATOR="$(wine_program)"
}

make_wine_prefix() {
    "$(wine_program)" wineboot --init
    # The registry files are written when the server of this prefix ends.
    "$(dirname "$(wine_program)")/wineserver" -w || wineserver -w
}

prepare_wine() {
    [ -f "$WINEPREFIX/ready" ] && return 0
    rm -rf "$WINEPREFIX"
    mkdir -p "$WINEPREFIX"
    quietly wineboot.log "making a private Wine prefix" make_wine_prefix
    touch "$WINEPREFIX/ready"
}

# Under Wine the locale decides on the code page: these two have 932 and 65001. Debian's package has their definitions.
make_locales() {
    local name
    mkdir -p "$BUILD/locales"
    for name in ja_JP hi_IN; do
        [ -f "$BUILD/locales/$name.UTF-8/LC_IDENTIFICATION" ] ||
            quietly "locale-$name.log" "making the locale $name" localedef -i "$name" -f UTF-8 "$BUILD/locales/$name.UTF-8"
    done
}

build_targets() {
    configure_build
    say "building"
    NINJA_STATUS='[%f/%t] ' ninja -C "$BUILD" -j "$JOBS" "$@" >&2 || die "the build failed; the compiler's words are above"
    prepare_wine
}

# Leaves a configured build folder.
prepare_configured() {
    install_packages "${PACKAGES_BUILD[@]}" "$@"
    with_lock "$CACHE" make_libraries
    with_lock "$BUILD" configure_build
}

# prepare_build TARGET...: leaves the targets built in $BUILD/bin.
prepare_build() {
    install_packages "${PACKAGES_BUILD[@]}"
    with_lock "$CACHE" make_libraries
    with_lock "$BUILD" build_targets "$@"
}

# run_windows PROGRAM ARGS...: runs it here, under Wine, and ends with its status.
run_windows() { "$ROOT/scripts/run-windows.sh" "$(wine_program)" "$@"; }

run_host() { run_windows "$BUILD/bin/fc-host.exe" "$@"; }

run_bench() { run_windows "$BUILD/bin/fc-bench.exe" "$@"; }
