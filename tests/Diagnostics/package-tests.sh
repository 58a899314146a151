#!/usr/bin/env bash
# Has diagnostics-tests leave diagnostic packages, opens them with unzip, and compares their files with those beside.
#   package-tests.sh XML DIAGNOSTICS-TESTS...
# The second is the command that runs them. The results go to XML, as GoogleTest writes them.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
XML=$1
LEAVE=("${@:2}" --gtest_filter='LeftPackage.*')
# shellcheck source=tests/support/shell-tests.sh
. "$HERE/../support/shell-tests.sh" UnpackedPackage

# Leaves the packages, for whichever test comes first.
packages() {
    [ ! -d "$WORK/diagnostics-packages" ] || return 0
    (cd "$WORK" && "${LEAVE[@]}") >"$WORK/log" 2>&1 || because "diagnostics-tests: $(tail -n 3 "$WORK/log")"
}

# unpacks NAME: the package is sound, and holds the expected files in their order, byte by byte.
unpacks() {
    local package=$WORK/diagnostics-packages/$1 file
    packages || return
    [ -s "$package/names" ] || because "diagnostics-tests has left no package $1" || return
    unzip -tq "$package/package.zip" >"$WORK/log" 2>&1 || because "unzip: $(tail -n 1 "$WORK/log")" || return
    unzip -Z1 "$package/package.zip" >"$WORK/names"
    cmp -s "$package/names" "$WORK/names" ||
        because "$1 holds $(tr '\n' ' ' <"$WORK/names")instead of $(tr '\n' ' ' <"$package/names")" || return
    while read -r file; do
        unzip -p "$package/package.zip" "$file" >"$WORK/content"
        cmp "$package/files/$file" "$WORK/content" >"$WORK/log" 2>&1 || because "$(cat "$WORK/log")" || return
    done <"$package/names"
}

AnOrdinaryDriversPackageIsComplete() {
    unpacks ordinary
}

ACrowdedDriversPackageIsComplete() {
    unpacks crowded
}

AnEmptyDriversPackageIsComplete() {
    unpacks empty
}

AClosedDriversPackageIsComplete() {
    unpacks closed
}

APackageWithBytesBeyondAsciiIsComplete() {
    unpacks foreign
}

for name in AnOrdinaryDriversPackageIsComplete ACrowdedDriversPackageIsComplete AnEmptyDriversPackageIsComplete AClosedDriversPackageIsComplete \
    APackageWithBytesBeyondAsciiIsComplete; do
    test_case "$name"
done
write_results package-tests "$XML"
