#!/bin/sh
# vexlo-sim killed with SIGTERM, SIGHUP or SIGINT ends the program it runs and what that program
# started; killed with SIGKILL, it still takes the program with it.
sim=$1
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
gone() { ! kill -0 "$1" 2>/dev/null || grep -q '^[0-9]* ([^)]*) Z' "/proc/$1/stat" 2>/dev/null; }
for sig in TERM HUP INT KILL; do
    rm -f "$dir/pids"
    if [ $sig = KILL ]; then prog='echo $$ > '"$dir/pids"'; exec sleep 60'
    else prog='sleep 60 & echo $$ $! > '"$dir/pids"'; wait'; fi
    "$sim" -- sh -c "$prog" &
    simpid=$!
    i=0
    while [ ! -s "$dir/pids" ] && [ $i -lt 400 ]; do sleep 0.05; i=$((i + 1)); done
    [ -s "$dir/pids" ] || { echo "SIG$sig: the program did not start"; exit 1; }
    kill -$sig $simpid
    wait $simpid
    for p in $(cat "$dir/pids"); do
        i=0
        while ! gone $p && [ $i -lt 100 ]; do sleep 0.05; i=$((i + 1)); done
        gone $p || { echo "SIG$sig: process $p outlived vexlo-sim"; kill -KILL $p; exit 1; }
    done
done
