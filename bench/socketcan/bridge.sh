#!/usr/bin/env bash
# vexlo serve's bridge to a Linux CAN interface, measured inside user-mode Linux (Linux 6.1):
# frames per second each way and the server's CPU time per frame, against candump on a plain vcan
# in the same kernel (bridge.py has the details).
#   bench/socketcan/bridge.sh [--short] [SECONDS]   (VEXLO, VEXLO_SIM; BENCH_BURST frames sent, default 2500)
# --short: 1 s and 100 frames, to show that it still runs; no figure is judged.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
burst=${BENCH_BURST:-2500}
if [ "${1:-}" = --short ]; then
  shift
  set -- 1
  burst=100
fi
vexlo=$(realpath "${VEXLO:-build/tools/vexlo}")
sim=$(realpath "${VEXLO_SIM:-build/sim/vexlo-sim}")
exec "$here/../../tests/kernel/uml-run" -t 300 -e VEXLO="$vexlo" -e VEXLO_SIM="$sim" \
  -e BENCH_SECONDS="${1:-10}" -e BENCH_BURST="$burst" -- /usr/bin/python3 "$here/bridge.py"
