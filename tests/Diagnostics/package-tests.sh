#!/usr/bin/env bash
# Opens the diagnostic packages that diagnostics-tests has left with unzip, and compares their files with those beside.
#   package-tests.sh FOLDER XML
# The results go to XML, as GoogleTest writes them.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
FOLDER=$1 XML=$2
# shellcheck source=tests/support/shell-tests.sh
. "$HERE/../support/shell-tests.sh" UnpackedPackage

# unpacks NAME: the package is sound, and holds the expected files in their order, byte by byte.
unpacks() {
    local package=$FOLDER/$1 file
    [ -s "$package/names" ] || because "$package is not there: run diagnostics-tests first" || return
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
