#!/usr/bin/env bash
# python-can recv() at the bus ceiling: a generator fills channel 1 of a simulated adapter at
# 1 Mbit/s with frames without data (21,277 frames/s) and the benchmark receives them for 20 s.
#   bench/python/recv_ceiling.sh [BUILD_DIR] [-- benchmark options, e.g. --seconds 5, or --short:
#   a one-second smoke run]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../.." && pwd)
build=$top/build
if [ $# -gt 0 ] && [ "$1" != -- ]; then
  build=$1
  shift
fi
[ "${1:-}" = "--" ] && shift
export PYTHONPATH="$top/python:$build/python/site" LD_LIBRARY_PATH="$build/src"
exec "$build/sim/vexlo-sim" --uncabled -g 1:0:seq0 -- /usr/bin/python3 "$here/recv_ceiling.py" "$@"
