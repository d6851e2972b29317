#!/usr/bin/env bash
# vexlo dump at the bus ceiling: both channels of a simulated adapter at 1 Mbit/s, each filled by a
# generator of frames without data (21,277 frames/s per channel, 42,553 together), logged with -L
# to a file for SECONDS (default 30). Reports the frames per second the command logged, the CPU
# time it spent per frame, and whether any frame was lost (queue counters and identifier gaps).
#   bench/tools/dump_ceiling.sh [SECONDS]     (VEXLO, VEXLO_SIM: the programs; default build/)
set -euo pipefail

secs=${1:-30}
vexlo=${VEXLO:-build/tools/vexlo}
sim=${VEXLO_SIM:-build/sim/vexlo-sim}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export TMPDIR=$work

# bash's `times` gives the CPU time of its children: the command alone, not the simulator.
"$sim" -g 0:0:seq0 -g 1:0:seq0 --uncabled -- bash -c \
  "'$vexlo' dump -b 1M -L -f '$work/log' -T $secs 0,1 > /dev/null 2> '$work/summary'; echo \$? > '$work/status'; times > '$work/times'"

status=$(cat "$work/status")
frames=$(wc -l < "$work/log")
# The second line of `times` is the children's user and system time, as 0m1.234s 0m0.567s.
# Under vexlo-sim most of the system time is the emulated USB I/O (umockdev's socket), which a
# real adapter does not cost.
secs_of() { awk -v t="$1" 'BEGIN { split(t, a, /[ms]/); print a[1] * 60 + a[2] }'; }
user=$(secs_of "$(sed -n 2p "$work/times" | cut -d' ' -f1)")
sys=$(secs_of "$(sed -n 2p "$work/times" | cut -d' ' -f2)")
# The generators count identifiers up from 0 (mod 0x800): every gap is a lost frame.
gaps=$(awk 'function hex(s,  i, v) { v = 0; for (i = 1; i <= length(s); i++) v = v * 16 + index("0123456789ABCDEF", substr(s, i, 1)) - 1; return v }
            { split($3, f, "#"); id = hex(f[1]); ch = $2
            if (ch in last && id != (last[ch] + 1) % 2048) g += (id - last[ch] - 1 + 2048) % 2048
            last[ch] = id } END { print g + 0 }' "$work/log")

# The rate over the span of the frames' own time stamps (the -T window also holds the start-up).
span=$(awk 'NR == 1 { a = substr($1, 2) + 0 } { b = substr($1, 2) + 0 } END { print b - a }' "$work/log")

cat "$work/summary"
awk -v f="$frames" -v s="$secs" -v u="$user" -v y="$sys" -v g="$gaps" -v st="$status" -v sp="$span" 'BEGIN {
  r = sp > 0 ? f / sp : 0
  printf "dump -L, 2 channels at the 1 Mbit/s ceiling for %d s: %d frames in %.2f s of time stamps, %.0f frames/s (%.1f%% of 42553)\n", s, f, sp, r, 100 * r / 42553
  n = f ? f : 1
  printf "command CPU: user %.2f s + system %.2f s = %.2f us per frame (user %.2f, system %.2f)\n", u, y, (u + y) * 1e6 / n, u * 1e6 / n, y * 1e6 / n
  printf "frames missing from the identifier sequence: %d; exit status %d\n", g, st
}'
[ "$status" -eq 0 ] && [ "$gaps" -eq 0 ]
