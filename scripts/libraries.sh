# shellcheck shell=bash
# wxWidgets base, Lua and cJSON for Windows, built once into the cache. The folder's name is derived from the pins and
# options, and it gets that name only when it is complete.

# Source packages.
LIBRARIES=(wxwidgets3.2 lua5.2 cjson)
# Header-only libraries, so there is nothing to build: the packages that contain them.
HEADER_LIBRARIES=(robin-map-dev libxxhash-dev)

WX_OPTIONS=(-DwxBUILD_SHARED=ON -DwxUSE_GUI=OFF -DwxUSE_STACKWALKER=ON -DwxUSE_DBGHELP=ON
    -DwxUSE_REGEX=OFF -DwxUSE_XML=OFF -DwxUSE_URL=OFF -DwxUSE_PROTOCOL=OFF -DwxUSE_FS_INET=OFF
    -DwxUSE_SOCKETS=OFF -DwxUSE_ZLIB=sys -DwxUSE_EXPAT=OFF -DwxUSE_LIBLZMA=OFF -DwxBUILD_TESTS=OFF
    -DwxBUILD_DEMOS=OFF -DwxBUILD_SAMPLES=OFF)

# What decides how they are built, beside the pins and these options.
LIBRARIES_RECIPE=("$TOOLCHAIN" "$ROOT"/cmake/{libraries/CMakeLists.txt,stack-guard.cmake,runtime/StackGuard.c})

libraries_dir() {
    local key
    key=$({
        pins_of "${LIBRARIES[@]}"
        echo "${WX_OPTIONS[@]}"
        clang++-19 -dumpversion
        x86_64-w64-mingw32-g++-posix -dumpfullversion
        cat "${LIBRARIES_RECIPE[@]}"
        declare -f configure_build_install
    } | sha256sum | cut -c1-16)
    echo "$CACHE/libraries/$key"
}

configure_build_install() {
    local source=$1 build=$2 prefix=$3
    # No path of this machine goes into the PDB files.
    local flags="-ffile-compilation-dir=. \"-ffile-prefix-map=$CACHE=.\""
    shift 3
    # wxWidgets keeps the prefix that it was configured for in its DLL.
    CFLAGS=$flags CXXFLAGS=$flags cmake -G Ninja -S "$source" -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/fc \
        -DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN" "$@"
    cmake --build "$build" -j "$JOBS"
    cmake --install "$build" --prefix "$prefix"
}

# is_whole FOLDER: whether it still contains everything.
is_whole() {
    [ -e "$1/complete" ] || return 1
    files_in "$1" | cmp -s - "$1/complete" && return 0
    say "$1 is damaged: rebuilding it"
    return 1
}

files_in() { (cd "$1" && find . -type f ! -name complete -printf '%s %P\n' | LC_ALL=C sort); }

# finish_folder PARTIAL FINAL: gives the folder its name.
finish_folder() {
    files_in "$1" >"$1/complete"
    rm -rf "$2"
    mv "$1" "$2"
}

# The licences of everything that our package links or contains.
collect_licences() {
    local to=$1/licences
    mkdir -p "$to"
    cp "$CACHE/src/wx/docs/licence.txt" "$to/wxWidgets.txt"
    cp "$CACHE/src/lua/debian/copyright" "$to/Lua.txt"
    cp "$CACHE/src/cjson/LICENSE" "$to/cJSON.txt"
    cp /usr/share/doc/libz-mingw-w64/copyright "$to/zlib.txt"
    cp /usr/share/doc/mingw-w64-common/copyright "$to/mingw-w64.txt"
    cp /usr/share/doc/gcc-mingw-w64-base/copyright "$to/GCC-runtime.txt"
}

build_libraries() {
    local final work prefix
    final=$(libraries_dir)
    is_whole "$final" && return 0
    fetch_packages "${LIBRARIES[@]}"
    unpack wxwidgets3.2 "$CACHE/src/wx"
    unpack lua5.2 "$CACHE/src/lua"
    unpack cjson "$CACHE/src/cjson"
    work=$final.work prefix=$final.partial
    rm -rf "$work" "$prefix"
    mkdir -p "$work" "$prefix"
    quietly libraries-small.log "building Lua and cJSON" \
        configure_build_install "$ROOT/cmake/libraries" "$work/small" "$prefix" \
        -DLUA_SOURCE="$CACHE/src/lua" -DCJSON_SOURCE="$CACHE/src/cjson"
    quietly libraries-wx.log "building wxWidgets base, about a minute" \
        configure_build_install "$CACHE/src/wx" "$work/wx" "$prefix" "${WX_OPTIONS[@]}" \
        -DCMAKE_PROJECT_wxWidgets_INCLUDE="$ROOT/cmake/stack-guard.cmake"
    cp "$work"/wx/lib/*/wxbase32u_*.pdb "$prefix"/lib/*_dll/
    # wxWidgets 3.2.8 does not install this header, which some of its own headers include.
    cp -n "$CACHE/src/wx/include/wx/msw/init.h" "$prefix/include/wx/msw/"
    collect_licences "$prefix"
    finish_folder "$prefix" "$final"
    rm -rf "$work" "$CACHE/src"
}

# robin-map and xxHash, in a separate folder: another version of them needs a copy, not a build.
headers_dir() {
    local key
    key=$(pins_of "${HEADER_LIBRARIES[@]}" | sha256sum | cut -c1-16)
    echo "$CACHE/headers/$key"
}

copy_headers() {
    local final prefix
    final=$(headers_dir)
    is_whole "$final" && return 0
    fetch_packages "${HEADER_LIBRARIES[@]}"
    unpack robin-map-dev "$CACHE/src/robin-map"
    unpack libxxhash-dev "$CACHE/src/xxhash"
    prefix=$final.partial
    rm -rf "$prefix"
    mkdir -p "$prefix/include" "$prefix/licences"
    cp -R "$CACHE/src/robin-map/usr/include/tsl" "$CACHE/src/xxhash/usr/include/xxhash.h" "$prefix/include/"
    cp "$CACHE/src/robin-map/usr/share/doc/robin-map-dev/copyright" "$prefix/licences/robin-map.txt"
    cp "$CACHE/src/xxhash/usr/share/doc/libxxhash-dev/copyright" "$prefix/licences/xxHash.txt"
    finish_folder "$prefix" "$final"
    rm -rf "$CACHE/src"
}
