# shellcheck shell=bash
# The Debian packages that the project needs, and their installation.

# What building and running needs, with the packages whose licences are copied; then what ./dev package, ./dev test and
# ./dev check need besides.
PACKAGES_BUILD=(ca-certificates clang-19 cmake dpkg-dev g++-mingw-w64-x86-64-posix gcc-mingw-w64-base googletest libz-mingw-w64
    libz-mingw-w64-dev lld-19 llvm-19 mingw-w64-common ninja-build unzip wine wine64 xz-utils zip)
PACKAGES_PACK=(dpkg)
PACKAGES_TEST=(chromium dpkg fonts-dejavu-core git locales python3)
PACKAGES_CHECK=(clang-format-19 clang-tidy-19 cppcheck git lua-check shellcheck)

has_apt() { command -v apt-get >/dev/null && command -v dpkg-query >/dev/null; }

# Apt has a program of its own to fetch files.
has_apt || PACKAGES_BUILD+=(curl)

# proof_of PACKAGE: the commands or files that show that it is installed, one per line; most packages are named after their
# command.
proof_of() {
    case $1 in
    ca-certificates) echo /etc/ssl/certs/ca-certificates.crt ;;
    dpkg) echo dpkg-query ;;
    dpkg-dev) echo dpkg-source ;;
    fonts-dejavu-core) echo /usr/share/fonts/truetype/dejavu/DejaVuSans.ttf ;;
    g++-mingw-w64-x86-64-posix) echo x86_64-w64-mingw32-g++-posix ;;
    gcc-mingw-w64-base | libz-mingw-w64 | mingw-w64-common) echo "/usr/share/doc/$1/copyright" ;;
    googletest) printf '%s\n' /usr/src/googletest/CMakeLists.txt /usr/share/doc/googletest/copyright ;;
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

missing_packages() {
    local package
    for package in "$@"; do
        dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || echo "$package"
    done
}

# However they were installed.
require_tools() {
    local package proof missing=() packages=()
    for package in "$@"; do
        while read -r proof; do
            is_there "$proof" || missing+=("$proof") packages+=("$package")
        done < <(proof_of "$package")
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
