# shellcheck shell=bash
# The Debian packages that the project needs, and their installation.

# What building and running needs; then what only ./dev test and only ./dev check need.
PACKAGES_BUILD=(ca-certificates clang-19 cmake dpkg-dev g++-mingw-w64-x86-64-posix googletest libz-mingw-w64-dev lld-19
    llvm-19 ninja-build unzip wine wine64 xz-utils zip)
PACKAGES_TEST=(chromium fonts-dejavu-core git locales)
PACKAGES_CHECK=(clang clang-format clang-tidy cppcheck git lua-check shellcheck)

missing_packages() {
    local package
    for package in "$@"; do
        dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || echo "$package"
    done
}

update_package_lists() {
    [ "$(id -u)" -eq 0 ] || ! command -v sudo >/dev/null || sudo -v # asks for a password here, not in the log
    quietly apt-update.log "apt-get update" as_root apt-get -o DPkg::Lock::Timeout=300 update
}

# install_packages PACKAGE...: installs those that are missing, or says what to install by hand.
install_packages() {
    local missing
    if ! command -v apt-get >/dev/null || ! command -v dpkg-query >/dev/null; then
        cat >&2 <<TEXT
error: there is no apt here, so that nothing can be installed for you. The devkit is built on Debian 12 (a
container of it will do). By hand it needs what these Debian packages hold, and the sources of wxWidgets 3.2,
Lua 5.2 and cJSON 1.7.15 as apt-get source would fetch them:
  $*
TEXT
        exit 1
    fi
    mapfile -t missing < <(missing_packages "$@")
    [ ${#missing[@]} -gt 0 ] || return 0
    say "installing ${#missing[@]} Debian packages: ${missing[*]}"
    update_package_lists
    quietly apt-install.log "apt-get install" as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get -o DPkg::Lock::Timeout=300 install -y --no-install-recommends "${missing[@]}"
}
