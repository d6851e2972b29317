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
# memory error or leak fails. One line each: the program relative to the build directory and its
# arguments, after the simulator's own options and " -- " when the run needs some (a generator for
# frames to receive; --trace for a listening node that acknowledges the frames sent).
memcheck_runs=(
  "tools/vexlo-demo -n 200 -q"
  "tools/vexlo list"
  "tools/vexlo info"
  "-g 0:1000 -- tools/vexlo dump -n 20 0"
  "-g 1:1000 -- tools/vexlo dump -T 1 0,1"
  "--trace /dev/null -- tools/vexlo send 0 123#DEADBEEF 12345678#11.22.33 7FF#R2 000#"
  "--trace /dev/null -- tools/vexlo gen -g 0 -n 100 0"
  "--trace /dev/null -- tools/vexlo play tests/tools/memcheck-play.log"
  "-g 0:1000 -- tools/vexlo stat 0"
  "-g 1:1000 -- tools/vexlo dump -n 20 -w /dev/null 1"
  "-n 2 -- tools/vexlo-extcap --extcap-interfaces"
)

memcheck() {
  local run sim prog
  for run in "${memcheck_runs[@]}"; do
    echo "== memcheck: $run"
    sim=
    prog=$run
    if [[ $run == *" -- "* ]]; then
      sim=${run%% -- *}
      prog=${run#* -- }
    fi
    # shellcheck disable=SC2086
    build/sim/vexlo-sim $sim -- valgrind -q --error-exitcode=99 --leak-check=full \
      --errors-for-leak-kinds=definite,indirect,possible --show-leak-kinds=definite,indirect,possible \
      --suppressions=tests/sanitizers/valgrind.supp build/$prog
  done
}

timed "normal build" suite build
timed "memcheck" memcheck
timed "address+undefined sanitizers" suite build-asan -DVEXLO_SANITIZE=address,undefined -DVEXLO_BENCH=OFF
timed "thread sanitizer" suite build-tsan -DVEXLO_SANITIZE=thread -DVEXLO_BENCH=OFF
# The fuzz targets replay their corpora, then fuzz for a minute in all; any finding fails.
timed "fuzzing" bash scripts/fuzz.sh -max_total_time=60
echo "== all passed in $SECONDS s"
