#!/usr/bin/env bash
# The main job on a fresh machine: installs what it needs, builds, and runs the demo program
# against the simulated adapter. Arguments go to the demo (-n FRAMES, -q, -d MASK).
# It builds only the demo and the simulator in build/, configured with the defaults, so that
# building everything there by hand later finds the same configuration.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
log=build/demo-build.log
mkdir -p build
if [ ! -x build/tools/vexlo-demo ] || [ ! -x build/sim/vexlo-sim ]; then
  echo "demo: building the library, the simulator and the demo in build/ (about a minute the first time)"
fi
{ cmake -S . -B build && cmake --build build -j2 --target vexlo-demo vexlo-sim; } >"$log" 2>&1 ||
  { cat "$log"; echo "demo: the build failed (its output above, and in $log)"; exit 1; }
exec build/sim/vexlo-sim -- build/tools/vexlo-demo "$@"
