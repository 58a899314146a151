# shellcheck shell=bash
# The folders that ./dev fills and ./dev clean removes, and their locks. FC_BUILD, FC_CACHE and FC_OUT can name any folder,
# even one with somebody's own work, so a folder is used only if ./dev made it.

MARKER=.made-by-dev # in a folder that ./dev made, or found empty

is_default_folder() {
    local folder
    for folder in "$ROOT"/{build,out,dist} "${XDG_CACHE_HOME:-$HOME/.cache}/fc-devkit"; do
        [ ! "$1" -ef "$folder" ] || return 0
    done
    return 1
}

# holds_clone FOLDER: whether it is the clone, or one that contains it.
holds_clone() {
    local folder
    folder=$(realpath "$ROOT")
    until [ "$1" -ef "$folder" ]; do
        [ "$folder" != / ] || return 1
        folder=$(dirname "$folder")
    done
}

# is_ours FOLDER: whether ./dev may fill and remove it. In the clone, `cmake .` leaves the cache of a build folder.
is_ours() {
    ! holds_clone "$1" || return 1
    [ -f "$1/$MARKER" ] || is_default_folder "$1" ||
        grep -qsxF "CMAKE_HOME_DIRECTORY:INTERNAL=$ROOT" "$1/CMakeCache.txt" # made before there was a marker
}

# claim_folder FOLDER VARIABLE: creates it, or rejects one with other contents.
claim_folder() {
    local folder=$1 variable=$2 foreign
    if [ -d "$folder" ] && ! is_ours "$folder" && [ -n "$(ls -A "$folder")" ]; then
        die "$folder is not empty and was not made by ./dev: set $variable to a new or empty folder"
    fi
    mkdir -p "$folder" 2>/dev/null || die "$folder can't be created: set $variable to a folder that you may write to"
    # A run as root leaves such things.
    foreign=$(find "$folder" -maxdepth 2 ! -type l ! -writable ! -user "$(id -u)" -print -quit 2>/dev/null)
    if [ -n "$foreign" ] || ! touch "$folder/$MARKER" 2>/dev/null; then
        die "${foreign:-$folder} can't be written to by $(id -un): set $variable to another folder, or remove $folder"
    fi
}

# require_writable FILE: checked before the work starts.
require_writable() {
    if [ -d "$1" ] || [ ! -w "$([ -e "$1" ] && echo "$1" || dirname "$1")" ]; then
        die "'$1' can't be written: does its folder exist, and may you write to it?"
    fi
}

# take_lock FD FILE HOW WHERE: takes the lock, waiting for others. Returns false if the file was removed meanwhile.
take_lock() {
    local fd=$1 file=$2 how=$3 where=$4
    eval "exec $fd>>\"\$file\""
    flock -n "$how" "$fd" || {
        say "another ./dev is $where; waiting for it"
        flock "$how" "$fd"
    }
    [ "$file" -ef "/proc/self/fd/$fd" ]
}

# One ./dev at a time builds, tests, checks, measures or packages in a build folder.
lock_build() {
    while
        claim_folder "$BUILD" FC_BUILD
        ! take_lock 9 "$BUILD/lock" --exclusive "at work in $BUILD"
    do :; done
}

unlock_build() { exec 9>&-; }

# lock_programs HOW: shared by those that run programs from the build folder, exclusive for whoever removes them.
lock_programs() { take_lock 8 "$BUILD/lock-of-programs" "$1" "running programs of $BUILD"; }

# in_cache COMMAND...: one ./dev at a time changes the cache, or the packages of the machine.
in_cache() {
    while
        claim_folder "$CACHE" FC_CACHE
        ! take_lock 7 "$CACHE/lock" --exclusive "at work in $CACHE"
    do :; done
    "$@"
    exec 7>&-
}

# ./dev clean.
clean_folders() {
    local folder
    for folder in "$BUILD" "$OUT" "$DIST"; do
        [ ! -e "$folder" ] || is_ours "$folder" ||
            die "$folder was not made by ./dev: remove it yourself if nothing in it is needed"
    done
    if [ -e "$BUILD" ]; then
        lock_build
        lock_programs --exclusive
    fi
    # The locks lie in the build folder and go with it.
    rm -rf "${BUILD:?}" "${OUT:?}" "${DIST:?}"
    say "removed $BUILD, $OUT and $DIST; the libraries stay in $CACHE (delete that folder to fetch them again)"
}
