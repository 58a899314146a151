# shellcheck shell=bash
# What the fake programs share. FAKES is this folder; in FAKE_STATE they note their calls, and files there steer them.
name=${0##*/}
echo "$name $*" >>"$FAKE_STATE/calls"

# is FACT: such as cmake.fails.
is() { [ -e "$FAKE_STATE/$name.$1" ]; }

# While the file NAME.hangs is there, runs on with others that make an end difficult: one in a group of its own, one
# without a parent, one that ignores Ctrl-C.
hang() {
    is hangs || return 0
    timeout 300 sleep 300 & echo $! >>"$FAKE_STATE/pids"
    (sleep 300 & echo $! >>"$FAKE_STATE/pids")
    (trap "" INT; exec sleep 300) & echo $! >>"$FAKE_STATE/pids"
    mapfile -t others <"$FAKE_STATE/pids"
    echo $$ >>"$FAKE_STATE/pids"
    touch "$FAKE_STATE/$name.is-hanging"
    while is hangs; do sleep 0.1; done
    kill "${others[@]}"
}
