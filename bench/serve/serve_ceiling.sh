#!/usr/bin/env bash
# vexlo serve at the bus ceiling: both channels of simulated adapter 0 filled by generators at
# 1 Mbit/s (frames without data: 21,277 frames/s per bus), eight raw-mode clients
# (four per bus) reading for SECONDS (default 30), and beside them a direct reader of adapter 1
# (its channel 0 also at the ceiling) on the readiness descriptor. Then 1,000 connect/disconnect
# cycles. The figures come from bench_serve (see its header); the server's log summary follows.
#   bench/serve/serve_ceiling.sh [--short] [SECONDS [CLIENTS [CYCLES]]]   (VEXLO, VEXLO_SIM, BENCH_SERVE)
# --short: 1 s, 2 clients, 20 cycles, to show that it still runs; only a failed connection fails it.
set -euo pipefail
short=
if [ "${1:-}" = --short ]; then
  short=--short
  shift
  set -- "${1:-1}" "${2:-2}" "${3:-20}"
fi
secs=${1:-30}
clients=${2:-8}
cycles=${3:-1000}
vexlo=${VEXLO:-build/tools/vexlo}
sim=${VEXLO_SIM:-build/sim/vexlo-sim}
bench=${BENCH_SERVE:-build/bench/bench_serve}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export TMPDIR=$work
port=$(( 30000 + RANDOM % 20000 ))
"$sim" -n 2 --uncabled -g 0:0:seq0 -g 1:0:seq0 -g 0@1:0:seq0 -- bash -c "
  '$vexlo' serve -d 0 -b 1M --listen 127.0.0.1:$port --no-beacon 2> '$work/serve.log' &
  server=\$!
  for i in \$(seq 100); do grep -q serving '$work/serve.log' && break; sleep 0.1; done
  '$bench' $short $port \$server $secs $clients $cycles; status=\$?
  kill -TERM \$server; wait \$server
  exit \$status"
status=$?
echo "server log: $(grep -c ' connected' "$work/serve.log") connects, $(grep -c 'frames dropped' "$work/serve.log") closing lines," \
  "$(grep -o '[0-9]* frames dropped' "$work/serve.log" | awk '{ s += $1 } END { print s + 0 }') frames dropped in all"
exit $status
