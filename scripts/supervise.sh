# shellcheck shell=bash
# Ends everything that ./dev has started. Its first process waits for a second one, which does the work. When it is
# interrupted, it ends every process that has its mark in the environment, whatever its parent and process group:
# compilers that ninja started, tests that ctest started, programs under Wine. All of them stay in the terminal's
# process group unless they leave it themselves, so that programs can read from the terminal.

END_SECONDS=10 # until the rest is killed

# The mark of the first process is the last one in FC_RUN; earlier ones are of runs that started this one.
is_supervised() {
    local marks=${FC_RUN:-}
    [[ ${marks##* } == "$PPID"-* ]]
}

session_of() {
    local stat fields
    stat=$(cat "/proc/$1/stat" 2>/dev/null) || return
    read -r -a fields <<<"${stat##*) }" # the name before it may contain blanks
    echo "${fields[3]}"
}

# started_processes [NAME]: those with the mark. Wine's server and services have it, too, but may serve another ./dev;
# they have sessions of their own, and end after their programs.
started_processes() {
    local environ pid session
    session=$(session_of $$)
    grep -lszE "^FC_RUN=(.* )?$MARK( |\$)" /proc/[0-9]*/environ | while IFS=/ read -r _ _ pid environ; do
        [ "$(session_of "$pid")" = "$session" ] || continue
        [ $# -eq 0 ] || [ "$(cat "/proc/$pid/comm" 2>/dev/null)" = "$1" ] || continue
        echo "$pid"
    done
}

# tell_processes SIGNAL PID...
tell_processes() {
    local signal=$1
    shift
    [ $# -eq 0 ] || kill -s "$signal" "$@" 2>/dev/null || true # some have ended meanwhile
}

# On Ctrl-C the host ends by itself and saves what it has collected.
interrupt_host() {
    local hosts deadline=$((SECONDS + END_SECONDS))
    mapfile -t hosts < <(started_processes fc-host.exe)
    [ ${#hosts[@]} -gt 0 ] || return 0
    tell_processes INT "${hosts[@]}"
    while kill -0 "$WORKER" 2>/dev/null && [ "$SECONDS" -lt "$deadline" ]; do
        sleep 0.1
    done
}

# end_started SIGNAL STATUS: ends all of them, then this process.
end_started() {
    local processes=(${WORKER:+"$WORKER"}) deadline signal=TERM
    trap '' HUP INT TERM
    [ "$1" != INT ] || interrupt_host
    deadline=$((SECONDS + END_SECONDS))
    while [ ${#processes[@]} -gt 0 ]; do
        tell_processes "$signal" "${processes[@]}"
        sleep 0.1
        [ "$SECONDS" -lt "$deadline" ] || signal=KILL
        mapfile -t processes < <(started_processes)
    done
    echo "interrupted" >&2
    exit "$2"
}

# supervise COMMAND...: runs it in a separate process, and ends with its status.
supervise() {
    local status=0
    MARK=$$-$EPOCHSECONDS WORKER=''
    trap 'end_started HUP 129' HUP
    trap 'end_started INT 130' INT
    trap 'end_started TERM 143' TERM
    # Without --default-signal a background job would ignore Ctrl-C.
    FC_RUN="${FC_RUN:+$FC_RUN }$MARK" env --default-signal=INT,QUIT "$@" <&0 &
    WORKER=$!
    wait "$WORKER" || status=$?
    exit "$status"
}
