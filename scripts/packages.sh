# shellcheck shell=bash
# The Debian packages that the project needs, and their installation.

# What building, running and testing needs; then what only ./dev check needs.
PACKAGES_BUILD=(ca-certificates cmake dpkg-dev g++-mingw-w64-x86-64-posix libz-mingw-w64-dev mingw-w64-tools
    ninja-build python3-minimal unzip wine wine64 xz-utils zip googletest)
PACKAGES_CHECK=(clang-format clang-tidy cppcheck lua-check shellcheck)

missing_packages() {
    local package
    for package in "$@"; do
        dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || echo "$package"
    done
}

# install_packages PACKAGE...: installs those that are missing, or says what to install by hand.
install_packages() {
    local missing
    if ! command -v apt-get >/dev/null || ! command -v dpkg-query >/dev/null; then
        if command -v x86_64-w64-mingw32-g++-posix >/dev/null && command -v wine >/dev/null &&
            [ -n "${FC_DEPS_SOURCE:-}" ]; then
            return 0
        fi
        cat >&2 <<TEXT
error: there is no apt here, so nothing can be installed for you. By hand, please install what these
Debian packages hold, and put the unpacked sources of wxWidgets 3.2, Lua 5.2 and cJSON 1.7.15 into one
folder as wx, lua and cjson; then run again with FC_DEPS_SOURCE=THAT_FOLDER:
  $*
TEXT
        exit 1
    fi
    mapfile -t missing < <(missing_packages "$@")
    [ ${#missing[@]} -gt 0 ] || return 0
    say "installing ${#missing[@]} Debian packages: ${missing[*]}"
    quietly apt-update.log "apt-get update" as_root apt-get update
    quietly apt-install.log "apt-get install" \
        as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
}
