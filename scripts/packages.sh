# shellcheck shell=bash
# The Debian packages that the project needs, and their installation.

# What building and running needs; then what only ./dev test, and only ./dev check need.
PACKAGES_BUILD=(ca-certificates clang-19 cmake dpkg-dev g++-mingw-w64-x86-64-posix googletest libz-mingw-w64-dev lld-19
    llvm-19 ninja-build unzip wine wine64 xz-utils zip)
PACKAGES_TEST=(chromium fonts-dejavu-core git locales python3)
PACKAGES_CHECK=(clang-format-19 clang-tidy-19 cppcheck git lua-check shellcheck)

# proof_of PACKAGE: a command or a file that shows that it is installed; most are named after their command.
proof_of() {
    case $1 in
    ca-certificates) echo /etc/ssl/certs/ca-certificates.crt ;;
    dpkg-dev) echo dpkg-source ;;
    fonts-dejavu-core) echo /usr/share/fonts/truetype/dejavu/DejaVuSans.ttf ;;
    g++-mingw-w64-x86-64-posix) echo x86_64-w64-mingw32-g++-posix ;;
    googletest) echo /usr/src/googletest/CMakeLists.txt ;;
    libz-mingw-w64-dev) echo /usr/x86_64-w64-mingw32/include/zlib.h ;;
    llvm-*) echo "llvm-ar-${1#llvm-}" ;;
    locales) echo /usr/share/i18n/locales/ja_JP ;;
    lua-check) echo luacheck ;;
    ninja-build) echo ninja ;;
    wine | wine64) echo "${FC_WINE:-wine}" ;;
    xz-utils) echo xz ;;
    *) echo "$1" ;;
    esac
}

is_there() {
    case $1 in
    /*) [ -e "$1" ] ;;
    *) command -v "$1" >/dev/null ;;
    esac
}

has_apt() { command -v apt-get >/dev/null && command -v dpkg-query >/dev/null; }

missing_packages() {
    local package
    for package in "$@"; do
        dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || echo "$package"
    done
}

# However they were installed.
require_tools() {
    local package missing=() packages=()
    for package in "$@"; do
        is_there "$(proof_of "$package")" || missing+=("$(proof_of "$package")") packages+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] ||
        die "missing: ${missing[*]}; install them by hand (on Debian: apt-get install --reinstall ${packages[*]})"
}

apt_install() {
    local apt=(env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300)
    [ -z "$(dpkg --audit)" ] || quietly dpkg.log "finishing an interrupted installation" as_root dpkg --configure -a
    # Without that mode apt only warns about a list that can't be fetched.
    quietly apt-update.log "apt-get update" as_root "${apt[@]}" -o APT::Update::Error-Mode=any update
    quietly apt-install.log "apt-get install" as_root "${apt[@]}" install -y --no-install-recommends "$@"
}

# install_packages PACKAGE...: installs those that are missing, or says what to install by hand.
install_packages() {
    local missing=()
    ! has_apt || mapfile -t missing < <(missing_packages "$@")
    if [ ${#missing[@]} -gt 0 ]; then
        require_root "packages are missing, and only root can install them; an administrator does it with: apt-get update && apt-get install -y --no-install-recommends ${missing[*]}"
        say "installing ${#missing[@]} Debian packages: ${missing[*]}"
        apt_install "${missing[@]}"
    fi
    require_tools "$@"
}
