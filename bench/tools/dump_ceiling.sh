#!/usr/bin/env bash
# vexlo dump at the bus ceiling: both channels of a simulated adapter at 1 Mbit/s, each filled by a
# generator of frames without data (21,277 frames/s per channel, 42,553 together), for SECONDS
# (default 30) each way in one run: logged with -L to a file, then captured with -w to a pcap
# file. Reports for each the frames per second the command wrote, the CPU time it spent per
# frame, and whether any frame was lost (queue counters and identifier gaps).
#   bench/tools/dump_ceiling.sh [--short] [SECONDS]     (VEXLO, VEXLO_SIM: the programs; default build/)
# --short: 1 s each way, to show that it still runs: it fails only when a dump wrote no frame or
# ended otherwise than with a summary (status 0, or 1 for frames lost).
set -euo pipefail

short=0
if [ "${1:-}" = --short ]; then
  short=1
  shift
  set -- "${1:-1}"
fi
secs=${1:-30}
vexlo=${VEXLO:-build/tools/vexlo}
sim=${VEXLO_SIM:-build/sim/vexlo-sim}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export TMPDIR=$work

# One way of dumping: MODE names it, the rest are dump's options for it. bash's `times` gives the
# CPU time of its children: the command alone, not the simulator.
dump() {
  local mode=$1
  shift
  "$sim" -g 0:0:seq0 -g 1:0:seq0 --uncabled -- bash -c \
    "'$vexlo' dump -b 1M -T $secs $* 0,1 > '$work/$mode.out' 2> '$work/$mode.summary'; echo \$? > '$work/$mode.status'; times > '$work/$mode.times'"
}
dump log -L -f "'$work/log'"
dump pcap -w "'$work/pcap'"

# The frames of each as "SECONDS CHANNEL ID" lines; a pcap record has no channel, but each
# channel's generator counts its own identifiers, so the gaps are counted per identifier stream.
awk '{ split($3, f, "#"); print substr($1, 2, length($1) - 2), $2, f[1] }' "$work/log" > "$work/log.frames"
python3 - "$work/pcap" > "$work/pcap.frames" <<'PY'
import struct, sys
raw = open(sys.argv[1], "rb").read()
out, at = [], 24
while at + 32 <= len(raw):
    sec, usec = struct.unpack_from("<II", raw, at)
    word = struct.unpack_from(">I", raw, at + 16)[0]
    out.append(f"{sec}.{usec:06d} any {word & 0x7FF:03X}")
    at += 32
sys.stdout.write("\n".join(out) + "\n")
PY

# Under vexlo-sim most of the system time is the emulated USB I/O (umockdev's socket), which a
# real adapter does not cost. The second line of `times` is the children's user and system time.
secs_of() { awk -v t="$1" 'BEGIN { split(t, a, /[ms]/); print a[1] * 60 + a[2] }'; }
fail=0
for mode in log pcap; do
  status=$(cat "$work/$mode.status")
  user=$(secs_of "$(sed -n 2p "$work/$mode.times" | cut -d' ' -f1)")
  sys=$(secs_of "$(sed -n 2p "$work/$mode.times" | cut -d' ' -f2)")
  # The generators count identifiers up from 0 (mod 0x800): every gap is a lost frame. In the
  # capture the two channels' streams interleave: a frame continues whichever stream it fits, and
  # one that fits neither is a gap in the nearer one.
  read -r frames gaps span < <(awk -v mode="$mode" '
    function hex(s,  i, v) { v = 0; for (i = 1; i <= length(s); i++) v = v * 16 + index("0123456789ABCDEF", substr(s, i, 1)) - 1; return v }
    function step(ch, id) { if (ch in last && id != (last[ch] + 1) % 2048) g += (id - last[ch] - 1 + 2048) % 2048; last[ch] = id }
    NR == 1 { a = $1 } { b = $1; id = hex($3); n++
      if (mode == "log") step($2, id)
      else if (!("s0" in last) || id == (last["s0"] + 1) % 2048) step("s0", id)
      else if (!("s1" in last) || id == (last["s1"] + 1) % 2048) step("s1", id)
      else step((id - last["s0"] + 2048) % 2048 <= (id - last["s1"] + 2048) % 2048 ? "s0" : "s1", id) }
    END { print n + 0, g + 0, b - a }' "$work/$mode.frames")
  sed "s/^/$mode: /" "$work/$mode.summary"
  awk -v m="$mode" -v f="$frames" -v s="$secs" -v u="$user" -v y="$sys" -v g="$gaps" -v st="$status" -v sp="$span" 'BEGIN {
    r = sp > 0 ? f / sp : 0
    printf "dump %s, 2 channels at the 1 Mbit/s ceiling for %d s: %d frames in %.2f s of time stamps, %.0f frames/s (%.1f%% of 42553)\n", m == "log" ? "-L" : "-w", s, f, sp, r, 100 * r / 42553
    n = f ? f : 1
    printf "  command CPU: user %.2f s + system %.2f s = %.2f us per frame (user %.2f, system %.2f)\n", u, y, (u + y) * 1e6 / n, u * 1e6 / n, y * 1e6 / n
    printf "  frames missing from the identifier sequence: %d; exit status %d\n", g, st
  }'
  if [ $short = 1 ]; then
    if [ "$frames" -eq 0 ] || [ "$status" -gt 1 ]; then fail=1; fi
  elif [ "$status" -ne 0 ] || [ "$gaps" -ne 0 ]; then
    fail=1
  fi
done
exit $fail
