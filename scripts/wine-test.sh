#!/usr/bin/env bash
# Runs one Windows test program under Wine for CTest with its output in a file, shown once it
# has ended: the console host Wine starts for a console program can outlive it holding the
# program's standard handles, and CTest would wait for a pipe left open until its time limit.
#
#   scripts/wine-test.sh WINE PROGRAM [ARGS...]
set -uo pipefail
wine=$1
shift
log=$(mktemp)
"$wine" "$@" >"$log" 2>&1 </dev/null
status=$?
cat "$log"
rm -f "$log"
exit "$status"
