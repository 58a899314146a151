#!/bin/sh
# run-apart.sh PROGRAM ARGS...: the same output, once the program has ended. Wine's services keep the output of the
# program that they were started for, and so whoever reads it would wait for them.
output=$(mktemp)
"$@" >"$output" 2>&1
status=$?
cat "$output"
rm -f "$output"
exit $status
