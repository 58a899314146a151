#!/usr/bin/env bash
# The version that the build determines, in temporary sources.
#   version-tests.sh XML
# The results go to XML, as GoogleTest writes them.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
XML=$1
# shellcheck source=tests/support/shell-tests.sh
. "$HERE/../support/shell-tests.sh" Version

export GIT_CONFIG_GLOBAL=/dev/null GIT_CONFIG_NOSYSTEM=1

git_in() { git -C "$WORK/$1" -c user.name=t -c user.email=t@t "${@:2}" >"$WORK/log" 2>&1; }

make_clone() {
    rm -rf "${WORK:?}/$1"
    mkdir -p "$WORK/$1"
    echo one >"$WORK/$1/file"
    git_in "$1" init && git_in "$1" add file && git_in "$1" commit -m one
}

# version_in FOLDER: prints it.
version_in() {
    cmake "-DSOURCE=$WORK/$1" -DVERSION=1.2.3 "-DHEADER=$WORK/Version.h" -P "$HERE/../../cmake/version.cmake" >"$WORK/log" 2>&1 ||
        because "$(tail -n 3 "$WORK/log")" || return
    sed -n 's/^#define FC_VERSION "\(.*\)"$/\1/p' "$WORK/Version.h"
}

# is_version FOLDER VERSION
is_version() {
    local found
    found=$(version_in "$1")
    [ "$found" = "$2" ] || because "it is '$found' instead of '$2'"
}

commit_of() { echo "g$(git -C "$WORK/$1" rev-parse HEAD | cut -c 1-10)"; }

TheVersionOfACloneContainsTheCommit() {
    make_clone clone && is_version clone "1.2.3+$(commit_of clone)"
}

TheVersionOfAChangedCloneIsMarkedDirty() {
    make_clone clone || return
    echo two >"$WORK/clone/file"
    is_version clone "1.2.3+$(commit_of clone)-dirty"
}

AnUntrackedFileChangesNothing() {
    make_clone clone || return
    echo note >"$WORK/clone/note"
    is_version clone "1.2.3+$(commit_of clone)"
}

TheCommitOfSourcesWithoutACloneIsUnknown() {
    mkdir -p "$WORK/unpacked"
    is_version unpacked 1.2.3+unknown
}

TheCommitOfAnEnclosingCloneIsNotUsed() {
    make_clone other || return
    mkdir -p "$WORK/other/unpacked"
    is_version other/unpacked 1.2.3+unknown
}

ACloneWithoutACommitIsUnknown() {
    mkdir -p "$WORK/empty"
    git_in empty init && is_version empty 1.2.3+unknown
}

TheCommitIsUnknownWithoutGit() {
    local folder=$WORK/tools
    make_clone clone || return
    mkdir -p "$folder"
    ln -sf "$(command -v cmake)" "$folder/cmake"
    ln -sf "$(command -v sed)" "$folder/sed"
    (PATH=$folder is_version clone 1.2.3+unknown) || because "it is another one"
}

# What includes it would be compiled again.
TheHeaderIsWrittenOnlyIfItChanges() {
    local before
    make_clone clone && version_in clone >"$WORK/log" || return
    touch -d '2001-01-01' "$WORK/Version.h"
    before=$(stat -c %Y "$WORK/Version.h")
    version_in clone >"$WORK/log"
    [ "$(stat -c %Y "$WORK/Version.h")" = "$before" ] || because "it is written again" || return
    echo two >"$WORK/clone/file"
    version_in clone >"$WORK/log"
    [ "$(stat -c %Y "$WORK/Version.h")" != "$before" ] || because "it is not written"
}

for name in TheVersionOfACloneContainsTheCommit TheVersionOfAChangedCloneIsMarkedDirty AnUntrackedFileChangesNothing \
    TheCommitOfSourcesWithoutACloneIsUnknown TheCommitOfAnEnclosingCloneIsNotUsed ACloneWithoutACommitIsUnknown \
    TheCommitIsUnknownWithoutGit TheHeaderIsWrittenOnlyIfItChanges; do
    test_case "$name"
done
write_results version-tests "$XML"
