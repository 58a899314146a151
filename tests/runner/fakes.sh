# shellcheck shell=bash
# A copy of ./dev and its scripts, in a folder with a blank and a letter beyond ASCII, and programs that stand in for those
# which it runs. To be sourced after shell-tests.sh; WORK is the folder of the tests.

CLONE="$WORK/a clöne"
BUILD="$WORK/the build"
export FAKES=$WORK/bin
export FAKE_STATE=$WORK/state
SAID=$WORK/said
RUN_AS=() # runs ./dev as another user

mkdir -p "$CLONE"
cp -r "$HERE/../../dev" "$HERE/../../scripts" "$CLONE"
cp -r "$HERE/fakes" "$FAKES"
# The libraries have their own tests.
echo >"$CLONE/scripts/sources.sh"
cat >"$CLONE/scripts/libraries.sh" <<'TEXT'
libraries_dir() { echo "$CACHE/libraries"; }
headers_dir() { echo "$CACHE/headers"; }
build_libraries() { mkdir -p "$CACHE/libraries"; }
copy_headers() { mkdir -p "$CACHE/headers"; }
TEXT

# fresh: the state before the first run, with Wine 8 installed.
fresh() {
    rm -rf "$FAKE_STATE" "$BUILD" "${WORK:?}"/{cache,home,out} "$CLONE"/{build,out,dist}
    mkdir -p "$FAKE_STATE" "$BUILD/bin" "$WORK/home"
    touch "$BUILD/.made-by-dev" "$FAKE_STATE/calls" "$FAKE_STATE/pids"
    ln -s "$FAKES/fc-host.exe" "$BUILD/bin/"
    echo 'wine-8.0 (Debian 8.0~repack-4)' >"$FAKE_STATE/wine-version"
}

# dev_command VARIABLE=VALUE... -- ARGS...: the command that runs the copy with the fake programs, in COMMAND.
dev_command() {
    COMMAND=(env -u FC_OUT HOME="$WORK/home" XDG_CACHE_HOME="$WORK/home" FC_BUILD="$BUILD" FC_CACHE="$WORK/cache" FC_WINE="$FAKES/wine"
        PATH="$FAKES:$PATH")
    while [ "$1" != -- ]; do
        COMMAND+=("$1")
        shift
    done
    shift
    # These tests may be run by a program that ignores Ctrl-C.
    COMMAND+=(env "--default-signal=INT,QUIT" "$CLONE/dev" "$@")
}

# dev VARIABLE=VALUE... -- ARGS...: leaves its output in SAID, its status in STATUS.
dev() {
    STATUS=0
    dev_command "$@"
    timeout 60 "${RUN_AS[@]}" "${COMMAND[@]}" >"$SAID" 2>&1 </dev/null || STATUS=$?
}

# start VARIABLE=VALUE... -- ARGS...: the same in the background, as process DEV.
start() {
    dev_command "$@"
    rm -f "$SAID"
    "${COMMAND[@]}" >"$SAID" 2>&1 </dev/null &
    DEV=$!
}

# eventually COMMAND...: waits until it succeeds, at most a minute.
eventually() {
    local i
    for ((i = 0; i < 600; i++)); do
        ! "$@" || return 0
        sleep 0.1
    done
    because "not within a minute: $* ($(tail -n 5 "$SAID"))"
}

# Even if nobody has waited for its status.
has_ended() { [ -z "$(tr -d '\0' 2>/dev/null <"/proc/$1/cmdline")" ]; } 2>/dev/null

has_said() { grep -qsF -- "$1" "$SAID"; }

# ends_with STATUS: the process DEV.
ends_with() {
    local status=0
    eventually has_ended "$DEV" || return
    wait "$DEV" || status=$?
    [ "$status" -eq "$1" ] || because "status $status: $(<"$SAID")"
}

succeeds() { [ "$STATUS" -eq 0 ] || because "status $STATUS: $(<"$SAID")"; }

says() { has_said "$1" || because "it does not say '$1': $(<"$SAID")"; }

says_not() { ! grep -qE -- "$1" "$SAID" || because "it says: $(grep -E -- "$1" "$SAID")"; }

# fails_with TEXT: in one line of the error output.
fails_with() {
    [ "$STATUS" -ne 0 ] || because "the status is 0: $(<"$SAID")" || return
    says "$1" || return
    [ "$(grep -c 'error:' "$SAID")" -eq 1 ] || because "not one error: $(<"$SAID")"
}

called() { grep -qE -- "$1" "$FAKE_STATE/calls" || because "no call '$1' in: $(<"$FAKE_STATE/calls")"; }

called_not() { ! grep -E -- "$1" "$FAKE_STATE/calls" >"$WORK/found" || because "called: $(<"$WORK/found")"; }
