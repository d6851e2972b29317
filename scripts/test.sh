#!/usr/bin/env bash
# The whole test suite on a fresh machine: installs what it needs, then runs every test three ways
# (the normal build, under the address and undefined-behaviour sanitizers, under the thread
# sanitizer), the programs that open an adapter under valgrind's memcheck, and the fuzz target.
# Each pass prints its time. The sanitizers' options and suppressions: tests/sanitizers/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

werror=OFF
[ "${CI:-}" = "true" ] && werror=ON
jobs=2

timed() {  # timed NAME COMMAND...: runs the command and prints how long it took
  local name=$1 start=$SECONDS
  shift
  "$@"
  echo "== $name: $((SECONDS - start)) s"
}

suite() {  # suite DIR [CMAKE OPTIONS...]: builds everything in DIR and runs every test there
  local dir=$1
  shift
  echo "== $dir: build and run every test"
  cmake -S . -B "$dir" -DVEXLO_WERROR=$werror "$@" >/dev/null
  cmake --build "$dir" -j$jobs
  (cd "$dir" && ctest -j$jobs --output-on-failure)
}

# Programs that open an adapter, run once each under the simulator with valgrind's memcheck: any
# memory error or leak fails. One line each, relative to the build directory.
memcheck_runs=(
  "tools/vexlo-demo -n 200 -q"
)

memcheck() {
  local run
  for run in "${memcheck_runs[@]}"; do
    echo "== memcheck: $run"
    # shellcheck disable=SC2086
    build/sim/vexlo-sim -- valgrind -q --error-exitcode=99 --leak-check=full \
      --errors-for-leak-kinds=definite,indirect,possible --show-leak-kinds=definite,indirect,possible \
      --suppressions=tests/sanitizers/valgrind.supp build/$run
  done
}

timed "normal build" suite build
timed "memcheck" memcheck
timed "address+undefined sanitizers" suite build-asan -DVEXLO_SANITIZE=address,undefined -DVEXLO_BENCH=OFF
timed "thread sanitizer" suite build-tsan -DVEXLO_SANITIZE=thread -DVEXLO_BENCH=OFF
# The fuzz target replays its corpus, then fuzzes for a minute; any finding fails.
timed "fuzzing" bash scripts/fuzz.sh -max_total_time=60
echo "== all passed in $SECONDS s"
