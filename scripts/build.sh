# shellcheck shell=bash
# From a fresh machine to built binaries.

make_libraries() {
    # Leftovers of interrupted runs.
    rm -rf "$CACHE"/libraries/*.{work,partial} "$CACHE"/headers/*.partial "$CACHE"/downloads/*.part "$CACHE/src"
    build_libraries
    copy_headers
}

STRICT=OFF # whether warnings are errors: ./dev check turns it on, and the build folder keeps the setting

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
    rm -rf "$BUILD/CMakeCache.txt" "$BUILD/CMakeFiles" "$BUILD/build.ninja"
    quietly configure.log "configuring" cmake -G Ninja -S "$ROOT" -B "$BUILD" \
        -DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_COMPILE_WARNING_AS_ERROR=$STRICT \
        -DFC_LIBRARIES="$(libraries_dir)" -DFC_HEADERS="$(headers_dir)" -DCMAKE_CROSSCOMPILING_EMULATOR="$(wine_program)"
}

# Wine's code page depends on the locale: these two have 932 and 65001. Debian's package has their definitions.
make_locales() {
    local name folder
    mkdir -p "$BUILD/locales"
    for name in ja_JP hi_IN; do
        folder=$BUILD/locales/$name.UTF-8
        [ -f "$folder/LC_IDENTIFICATION" ] && continue
        rm -rf "$folder" "$folder.partial"
        quietly "locale-$name.log" "creating the locale $name" localedef -i "$name" -f UTF-8 "$folder.partial"
        mv "$folder.partial" "$folder"
    done
}

# prepare_configured [PACKAGE...]: configures the build folder, with those packages installed, too.
prepare_configured() {
    in_cache install_packages "${PACKAGES_BUILD[@]}" "$@"
    in_cache make_libraries
    configure_build
}

# prepare_build TARGET...: builds the targets in $BUILD/bin, and prepares a Wine to run them.
prepare_build() {
    prepare_configured
    local make=(ninja -C "$BUILD" -j "$JOBS" "$@")
    if [ -n "$QUIET" ]; then
        quietly build.log "the build" "${make[@]}"
    else
        say "building"
        NINJA_STATUS='[%f/%t] ' "${make[@]}" >&2 || die "the build failed; the compiler's messages are above"
    fi
    prepare_wine
}

# prepare_programs TARGET...: the same for programs that run for any length of time. Others may build meanwhile: a
# linker makes new files.
prepare_programs() {
    lock_build
    prepare_build "$@"
    unlock_build
}
