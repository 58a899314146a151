# shellcheck shell=bash
# From a fresh machine to built binaries and a place to run them.

prepare_libraries() {
    mkdir -p "$CACHE" "$BUILD"
    exec 9>"$CACHE/lock"
    flock -n 9 || {
        say "another ./dev is preparing the libraries; waiting for it"
        flock 9
    }
    fetch_sources
    build_libraries
    exec 9>&-
}

configure_build() {
    local libraries
    libraries=$(libraries_dir)
    if [ -f "$BUILD/build.ninja" ] && grep -qxF "FC_LIBRARIES:PATH=$libraries" "$BUILD/CMakeCache.txt"; then
        return 0
    fi
    rm -rf "$BUILD/CMakeCache.txt" "$BUILD/CMakeFiles"
    quietly configure.log "configuring" cmake -G Ninja -S "$ROOT" -B "$BUILD" \
        -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/mingw64.cmake" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DFC_LIBRARIES="$libraries" -DCMAKE_CROSSCOMPILING_EMULATOR="$WINE"
}

prepare_wine() {
    [ -f "$WINEPREFIX/ready" ] && return 0
    rm -rf "$WINEPREFIX"
    mkdir -p "$WINEPREFIX"
    quietly wineboot.log "making a private Wine prefix" "$WINE" wineboot --init
    touch "$WINEPREFIX/ready"
}

# prepare_build TARGET...: leaves the targets built in $BUILD/bin.
prepare_build() {
    install_packages "${PACKAGES_BUILD[@]}"
    prepare_libraries
    configure_build
    say "building"
    NINJA_STATUS='[%f/%t] ' ninja -C "$BUILD" -j "$JOBS" "$@" >&2 || die "the build failed; the compiler's words are above"
    prepare_wine
}

# run_windows PROGRAM ARGS...: runs it here, under Wine.
run_windows() { "$WINE" "$@"; }

run_host() {
    mkdir -p "$OUT"
    run_windows "$BUILD/bin/fc-host.exe" "$@"
}
