#!/bin/sh
# vexlo-sim killed with SIGTERM, SIGHUP or SIGINT ends the program it runs and what that program
# started; killed with SIGKILL, it still takes the program with it.
sim=$1 pids=$(mktemp)
trap 'rm -f "$pids"' EXIT
alive() { kill -0 "$1" 2>/dev/null && ! grep -q '^[0-9]* ([^)]*) Z' "/proc/$1/stat" 2>/dev/null; }
for sig in TERM HUP INT KILL; do
    prog='sleep 60 & echo $$ $! >'"$pids"'; wait'
    [ $sig = KILL ] && prog='echo $$ >'"$pids"'; exec sleep 60'
    : >"$pids"
    "$sim" -- sh -c "$prog" &
    for i in $(seq 400); do [ -s "$pids" ] && break; sleep 0.05; done
    kill -$sig $! && wait $!
    [ -s "$pids" ] || { echo "SIG$sig: the program did not start"; exit 1; }
    # A killed program ends soon after the signal, not at once: it may take up to 20 s to go.
    for p in $(cat "$pids"); do
        for i in $(seq 400); do alive $p || break; sleep 0.05; done
        alive $p && { echo "SIG$sig: $p outlived vexlo-sim"; kill -KILL $p; exit 1; }
    done
done
exit 0
