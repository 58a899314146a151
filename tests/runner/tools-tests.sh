#!/usr/bin/env bash
# What ./dev does about the tools that it finds: Wine, packages, a full disk, in a copy of the scripts with fake programs.
#   tools-tests.sh XML
# The results go to XML, as GoogleTest writes them.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
XML=$1
# shellcheck source=tests/support/shell-tests.sh
. "$HERE/../support/shell-tests.sh" Tools
# shellcheck source=tests/runner/fakes.sh
. "$HERE/fakes.sh"

# Some programs must be missing, or print something else: programs are searched only in PATH_OF_TEST.
PATH_OF_TEST=$WORK/path

# path_without NAME...: the fake programs and the system's, without these.
path_without() {
    local name
    rm -rf "$PATH_OF_TEST"
    mkdir "$PATH_OF_TEST"
    ln -s /usr/bin/* /usr/sbin/* "$PATH_OF_TEST" 2>/dev/null || true
    for name in "$FAKES"/*; do
        ln -sf "$name" "$PATH_OF_TEST"
    done
    for name in "$@"; do
        rm -f "${PATH_OF_TEST:?}/$name"
    done
}

# program NAME: creates it with the script on standard input.
program() {
    rm -f "${PATH_OF_TEST:?}/$1"
    { echo '#!/bin/bash'; cat; } >"$PATH_OF_TEST/$1"
    chmod +x "$PATH_OF_TEST/$1"
}

in_path() { dev PATH="$PATH_OF_TEST" -- "$@"; }

APrefixIsMadeOnce() {
    fresh
    dev -- run && succeeds && called 'wineboot' || return
    echo >"$FAKE_STATE/calls"
    dev -- run && succeeds && called_not 'wineboot'
}

AnotherWineGetsANewPrefix() {
    fresh
    dev -- run && succeeds || return
    touch "$BUILD/wine/of-the-old-one"
    echo 'wine-10.0 (Debian 10.0~repack-6)' >"$FAKE_STATE/wine-version"
    dev -- run && succeeds || return
    [ ! -e "$BUILD/wine/of-the-old-one" ] || because "the old prefix is used: $(<"$SAID")"
}

ADamagedPrefixIsMadeAgain() {
    local damage
    for damage in 'rm system.reg' 'truncate -s 0 user.reg' 'rm -r drive_c' 'rm ready' 'truncate -s 0 ready'; do
        fresh
        dev -- run && succeeds || return
        echo >"$FAKE_STATE/calls"
        (cd "$BUILD/wine" && $damage)
        dev -- run && succeeds || return
        called 'wineboot' || because "used after: $damage" || return
    done
}

AnIncompletePrefixIsAFailure() {
    fresh
    touch "$FAKE_STATE/wine.lazy"
    dev -- run
    fails_with 'creating a private Wine prefix failed'
}

AnOldWineIsRefused() {
    local version
    for version in 'wine-7.0.2 (Debian)' 'wine-6' 'something else' ''; do
        fresh
        echo "$version" >"$FAKE_STATE/wine-version"
        dev -- run
        fails_with "this needs Wine 8 or newer, and here is $version" && called_not 'wineboot' || return
    done
}

# without_apt NAME...: as on another distribution, where curl fetches files.
without_apt() {
    path_without apt-get dpkg-query dpkg sudo "$@"
    program curl <<<''
}

WithoutAptInstalledToolsAreEnough() {
    fresh
    without_apt
    in_path run
    succeeds
}

WithoutAptAMissingToolIsNamed() {
    fresh
    without_apt ninja x86_64-w64-mingw32-g++-posix
    in_path run
    fails_with 'missing: x86_64-w64-mingw32-g++-posix ninja; install them by hand (on Debian: apt-get install --reinstall g++-mingw-w64-x86-64-posix ninja-build)'
}

WithoutAptWhatFetchesAndPacksIsNamedBeforeTheBuild() {
    fresh
    without_apt
    in_path package
    fails_with 'missing: dpkg-query; install them by hand' && called_not 'ninja' || return
    rm "$PATH_OF_TEST/curl"
    in_path run
    fails_with 'missing: curl; install them by hand' && called_not 'ninja'
}

ALicenceThatIsCopiedIsAskedForBeforeTheBuild() {
    local licence count=0
    # shellcheck disable=SC2016 # for the inner shell
    bash -c '. "$1/scripts/packages.sh"; for package in "${PACKAGES_BUILD[@]}"; do proof_of "$package"; done' bash "$CLONE" >"$SAID"
    while read -r licence; do
        grep -qxF "$licence" "$SAID" || because "not $licence" || return
        count=$((count + 1))
    done < <(grep -hoE '^ *cp /usr/share/doc/[^ ]*/copyright' "$HERE"/../../scripts/{libraries,package}.sh | sed 's/^ *cp //')
    [ $count -ge 4 ] || because "only $count are copied"
}

APackageWithoutItsCompilerIsNamed() {
    fresh
    path_without x86_64-w64-mingw32-g++-posix
    in_path run
    fails_with 'missing: x86_64-w64-mingw32-g++-posix'
}

EveryPackageIsRecognisedByWhatItInstalls() {
    local packages
    # The missing programs are those that ./dev test has installed.
    packages=$(bash -c '. "$1/scripts/packages.sh"; echo "${PACKAGES_BUILD[@]}" "${PACKAGES_TEST[@]}"' bash "$CLONE")
    # shellcheck disable=SC2086 # the names
    bash -c '. "$1/scripts/packages.sh"; die() { echo "$@"; exit 1; }; require_tools "${@:2}"' bash "$CLONE" $packages >"$SAID" 2>&1 ||
        because "$(<"$SAID")"
}

# someone_else NAME...: runs as a user who is not root and lacks packages, without these programs.
someone_else() {
    path_without "$@"
    touch "$FAKE_STATE/id.of-a-user" "$FAKE_STATE/dpkg-query.failing"
}

WithoutRootTheMessageIsForAnAdministrator() {
    fresh
    someone_else sudo
    in_path run
    fails_with 'an administrator does it with: apt-get update && apt-get install -y --no-install-recommends ca-certificates' || return
    called_not '^apt-get' || return
    rm "$FAKE_STATE/dpkg-query.failing" # as if the administrator had done it
    in_path run
    succeeds
}

AUserWithoutSudoRightsGetsTheSameMessage() {
    fresh
    someone_else
    program sudo <<<'echo "user is not in the sudoers file." >&2; exit 1'
    in_path run
    fails_with 'an administrator does it with: apt-get update && apt-get install' && called_not '^apt-get'
}

PackagesAreInstalledWithSudo() {
    fresh
    someone_else
    in_path run
    succeeds && called '^sudo .*apt-get .*update' && called '^sudo .*apt-get .*install .*cmake'
}

AnUpdateThatFailsIsAnError() {
    fresh
    touch "$FAKE_STATE/dpkg-query.failing" "$FAKE_STATE/apt-get.fails"
    dev -- run
    fails_with 'apt-get update failed' && called 'apt-get .*APT::Update::Error-Mode=any' && called_not 'apt-get .* install'
}

AnInterruptedInstallationIsFinishedFirst() {
    fresh
    touch "$FAKE_STATE/dpkg-query.failing"
    echo "the following packages are only half configured" >"$FAKE_STATE/dpkg.audit"
    dev -- run
    succeeds && called 'dpkg --configure -a'
}

AFullDiskIsReported() {
    fresh
    path_without
    # shellcheck disable=SC2016 # for the program
    program df <<<'echo "Avail"; case "${@: -1}" in *build) echo "1M" ;; *) echo "900000M" ;; esac'
    touch "$FAKE_STATE/ninja.fails"
    in_path run
    says 'error: the build failed' && says "error: only 1 MiB are left on the disk that holds $BUILD: free some space there" || return
    rm "$FAKE_STATE/ninja.fails"
    in_path run
    succeeds && says_not 'MiB'
}

AFailureWithFreeDiskSpaceDoesNotMentionIt() {
    fresh
    path_without
    program df <<<'echo "Avail"; echo "900000M"'
    touch "$FAKE_STATE/ninja.fails"
    in_path run
    fails_with 'the build failed' && says_not 'MiB'
}

LongWorkReportsThatItIsStillRunning() {
    fresh
    touch "$FAKE_STATE/cmake.hangs"
    start FC_PROGRESS_SECONDS=1 -- run
    eventually has_said 'configuring: still running after ' || return
    rm "$FAKE_STATE/cmake.hangs"
    ends_with 0
}

ColoursAreOnlyForTerminals() {
    local line
    fresh
    dev -- run && succeeds && says_not $'\033' || return
    dev_command -- nosuch
    printf -v line '%q ' "${COMMAND[@]}"
    SHELL=/bin/bash timeout 60 script -qec "$line" "$SAID" </dev/null >/dev/null 2>&1
    says $'\033[1;31merror:'
}

OnlyACheckTurnsWarningsIntoErrors() {
    local tool
    path_without
    for tool in clang-format-19 clang-tidy-19 cppcheck luacheck shellcheck; do
        program "$tool" <<<''
    done
    fresh
    in_path run && succeeds && called '^cmake .*-DCMAKE_COMPILE_WARNING_AS_ERROR=OFF' || return
    in_path check # ends after it, since the copy is no clone
    called '^cmake .*-DCMAKE_COMPILE_WARNING_AS_ERROR=ON' || return
    fresh
    in_path test && succeeds && called '^cmake .*-DCMAKE_COMPILE_WARNING_AS_ERROR=OFF' && called_not 'AS_ERROR=ON'
}

LeftoversOfInterruptedRunsInTheCacheAreRemoved() {
    local left
    fresh
    for left in libraries/0123.work libraries/0123.partial headers/0123.partial downloads/a.part src; do
        mkdir -p "$WORK/cache/$left"
    done
    touch "$WORK/cache/.made-by-dev"
    dev -- run && succeeds || return
    left=$(find "$WORK/cache" -name '*.work' -o -name '*.part*' -o -name src)
    [ -z "$left" ] || because "left: $left"
}

LeftoversOfProgramsAreRemovedWhileNoneRuns() {
    local temporary lane host
    fresh
    touch "$FAKE_STATE/fc-host.exe.hangs"
    start -- host loop.lua
    host=$DEV
    eventually test -e "$FAKE_STATE/fc-host.exe.is-hanging" || return
    temporary=$BUILD/wine/drive_c/users/someone/Temp
    lane=$BUILD/wine-77/drive_c/users/someone/Temp
    mkdir -p "$temporary"/{fc-devkit-1-1,other} "$lane"/fc-devkit-1-1
    dev -- test && succeeds || return
    [ -d "$temporary/fc-devkit-1-1" ] || because "a folder of the program that runs is gone" || return
    rm "$FAKE_STATE/fc-host.exe.hangs"
    wait "$host"
    dev -- test && succeeds || return
    [ "$(ls "$temporary" "$lane")" = "$lane:

$temporary:
other" ] || because "there are: $(ls "$temporary" "$lane")"
}

for name in APrefixIsMadeOnce AnotherWineGetsANewPrefix ADamagedPrefixIsMadeAgain AnIncompletePrefixIsAFailure \
    AnOldWineIsRefused WithoutAptInstalledToolsAreEnough WithoutAptAMissingToolIsNamed \
    WithoutAptWhatFetchesAndPacksIsNamedBeforeTheBuild ALicenceThatIsCopiedIsAskedForBeforeTheBuild APackageWithoutItsCompilerIsNamed \
    EveryPackageIsRecognisedByWhatItInstalls WithoutRootTheMessageIsForAnAdministrator AUserWithoutSudoRightsGetsTheSameMessage \
    PackagesAreInstalledWithSudo AnUpdateThatFailsIsAnError AnInterruptedInstallationIsFinishedFirst AFullDiskIsReported \
    AFailureWithFreeDiskSpaceDoesNotMentionIt LongWorkReportsThatItIsStillRunning ColoursAreOnlyForTerminals OnlyACheckTurnsWarningsIntoErrors \
    LeftoversOfInterruptedRunsInTheCacheAreRemoved LeftoversOfProgramsAreRemovedWhileNoneRuns; do
    test_case "$name"
done
write_results tools-tests "$XML"
