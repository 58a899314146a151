# shellcheck shell=bash
# The folders that ./dev fills and ./dev clean removes. FC_BUILD and FC_CACHE can name any folder, somebody's own work
# among them, so a folder is used only if ./dev made it.

MARKER=.made-by-dev # in a folder that ./dev made, or found empty

is_default_folder() {
    [ "$1" -ef "$ROOT/build" ] || [ "$1" -ef "${XDG_CACHE_HOME:-$HOME/.cache}/fc-devkit" ]
}

# is_ours FOLDER: whether ./dev may fill and remove it.
is_ours() {
    [ -f "$1/$MARKER" ] || is_default_folder "$1" ||
        grep -qsxF "CMAKE_HOME_DIRECTORY:INTERNAL=$ROOT" "$1/CMakeCache.txt" # made before there was a marker
}

# claim_folder FOLDER VARIABLE: makes it, or refuses one that holds something else.
claim_folder() {
    local folder=$1 variable=$2
    if [ -d "$folder" ] && ! is_ours "$folder" && [ -n "$(ls -A "$folder")" ]; then
        die "$folder is not empty and was not made by ./dev: let $variable name a new or an empty folder"
    fi
    mkdir -p "$folder" || die "$folder can't be made: let $variable name a folder that you may write to"
    touch "$folder/$MARKER" 2>/dev/null ||
        die "$folder can't be written to by $(id -un): let $variable name another folder, or remove that one"
}

remove_outputs() {
    # The lock lies in the build folder and goes with it.
    rm -rf "${BUILD:?}" "${OUT:?}" "${ROOT:?}/dist"
}

# ./dev clean. Waits for a ./dev that is at work in the build folder.
clean_folders() {
    if [ -e "$BUILD" ]; then
        is_ours "$BUILD" || die "$BUILD was not made by ./dev: remove it yourself if nothing in it is needed"
        with_lock "$BUILD" remove_outputs
    else
        remove_outputs
    fi
    say "removed $BUILD, out/ and dist/; the libraries stay in $CACHE (delete that folder to fetch them anew)"
}
