#!/usr/bin/env bash
# The main job on a fresh machine: installs what it needs, builds, and runs the demo program
# against the simulated adapter. Arguments go to the demo (-n FRAMES, -q, -d MASK).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -DVEXLO_BENCH=OFF >/dev/null
cmake --build build -j2 --target vexlo-demo vexlo-sim >/dev/null
exec build/sim/vexlo-sim -- build/tools/vexlo-demo "$@"
