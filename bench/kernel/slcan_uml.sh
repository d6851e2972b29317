#!/usr/bin/env bash
# What a serial line of vexlo serve carries through Linux 6.1's slcan driver inside user-mode Linux:
# frames per second received on slcan0 from the simulated bus (and how many were lost), and sent
# from slcan0 to the bus. See slcan_uml.py for the method.
#   bench/kernel/slcan_uml.sh [SECONDS [RATE [COUNT]]]   (defaults 10, 0 = the bus's ceiling, 5000;
#                                                        env VEXLO, VEXLO_SIM as for the tests)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../.." && pwd)
vexlo=$(realpath "${VEXLO:-$top/build/tools/vexlo}")
sim=$(realpath "${VEXLO_SIM:-$top/build/sim/vexlo-sim}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$top/tests/kernel/uml-run" -t 900 -e VEXLO="$vexlo" -e VEXLO_SIM="$sim" -e TMPDIR="$work" -- \
  /usr/bin/python3 "$here/slcan_uml.py" "${1:-10}" "${2:-0}" "${3:-5000}" | grep -v 'VCI_Transmit'
