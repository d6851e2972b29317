#!/usr/bin/env bash
# The whole test suite on a fresh machine: installs what it needs, then runs every test three ways
# (the normal build, under the address and undefined-behaviour sanitizers, under the thread
# sanitizer), the programs that open an adapter under valgrind's memcheck, every benchmark in a
# short run, and the fuzz targets. 10 to 25 minutes on two cores. Each pass prints its summary and
# its time; the compilers', the tests' and the fuzzers' output goes to files in build-logs/, and
# what tells why a pass failed is printed from them. The sanitizers' options and suppressions:
# tests/sanitizers/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

werror=OFF
[ "${CI:-}" = "true" ] && werror=ON
jobs=2
logs=build-logs
rm -rf "$logs" && mkdir -p "$logs"
echo "test: three builds with their tests, memcheck, benchmarks, fuzzing: 10 to 25 minutes on two" \
  "cores; the details go to $logs/"

timed() {  # timed NAME COMMAND...: runs the command and prints how long it took
  local name=$1 start=$SECONDS
  shift
  "$@"
  echo "== $name: $((SECONDS - start)) s"
}

# failed LOG WHAT: prints what of LOG tells why WHAT failed (its errors with their context, else
# its end) and ends the run.
failed() {
  local log=$1 what=$2
  echo "== FAILED: $what; the whole output: $log"
  local errors='error:|Error [0-9]|CMake Error|ERROR'
  if grep -q -E "$errors" "$log"; then
    grep -E -B3 -A12 "$errors" "$log" | head -n 200
  else
    tail -n 60 "$log"
  fi
  exit 1
}

suite() {  # suite DIR [CMAKE OPTIONS...]: builds everything in DIR and runs every test there
  local dir=$1 log=$logs/$1
  shift
  echo "== $dir: build and run every test"
  { cmake -S . -B "$dir" -DVEXLO_WERROR=$werror "$@" && cmake --build "$dir" -j$jobs; } >"$log-build.log" 2>&1 ||
    failed "$log-build.log" "the build in $dir"
  # The linker's notes on the sanitizers' own runtimes (tmpnam and the like) are not ours to fix.
  echo "$dir: built, $(grep 'warning:' "$log-build.log" | grep -c -v '^/usr/bin/ld: /lib/' || true) compiler warnings"
  if ! (cd "$dir" && ctest -j$jobs --output-on-failure) >"$log-ctest.log" 2>&1; then
    echo "== FAILED: tests in $dir; the whole output: $log-ctest.log"
    # The failed tests with their output and the summary, without the lines of those that passed.
    grep -v -E '^ *Start +[0-9]+: |Test +#[0-9]+: .* Passed ' "$log-ctest.log" | head -n 400
    exit 1
  fi
  # The summary: the count, the time and the tests that did not run (skipped where a tool is missing).
  sed -n '/tests passed/,$p' "$log-ctest.log" | grep -v '^$'
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
  local run sim prog log=$logs/memcheck.log
  : >"$log"
  for run in "${memcheck_runs[@]}"; do
    echo "== memcheck: $run" >>"$log"
    sim=
    prog=$run
    if [[ $run == *" -- "* ]]; then
      sim=${run%% -- *}
      prog=${run#* -- }
    fi
    # shellcheck disable=SC2086
    build/sim/vexlo-sim $sim -- valgrind -q --error-exitcode=99 --leak-check=full \
      --errors-for-leak-kinds=definite,indirect,possible --show-leak-kinds=definite,indirect,possible \
      --suppressions=tests/sanitizers/valgrind.supp build/$prog >"$log.run" 2>&1 ||
      { cat "$log.run" >>"$log"; echo "== FAILED: memcheck: $run"; cat "$log.run"; exit 1; }
    cat "$log.run" >>"$log"
  done
  rm -f "$log.run"
  echo "memcheck: ${#memcheck_runs[@]} programs, no memory error or leak"
}

# Every benchmark once in a short run (--short: a second or so each), to show that it still builds
# and runs; no figure is judged.
bench_runs=(
  "build/bench/bench_fifo --short"
  "build/bench/bench_decode --short"
  "build/bench/bench_frames --short"
  "build/bench/bench_ext --short"
  "build/bench/bench_soak --short"
  "build/bench/sim/sim_bench --short"
  "build/bench/sim/sim_trace_bench --short"
  "bash bench/tools/dump_ceiling.sh --short"
  "bash bench/serve/serve_ceiling.sh --short"
  "bash bench/python/recv_ceiling.sh build -- --short"
  "bash bench/kernel/slcan_uml.sh --short"
  "bash bench/socketcan/bridge.sh --short"
)

benchmarks() {
  local run log=$logs/bench.log
  : >"$log"
  for run in "${bench_runs[@]}"; do
    echo "== bench: $run" >>"$log"
    # shellcheck disable=SC2086
    $run >"$log.run" 2>&1 || { cat "$log.run" >>"$log"; echo "== FAILED: $run"; cat "$log.run"; exit 1; }
    cat "$log.run" >>"$log"
  done
  rm -f "$log.run"
  echo "benchmarks: ${#bench_runs[@]} ran in a short run each (their figures: $log)"
}

timed "normal build" suite build -DVEXLO_TESTS=ON -DVEXLO_BENCH=ON
timed "memcheck" memcheck
timed "benchmarks, short runs" benchmarks
timed "address+undefined sanitizers" suite build-asan -DVEXLO_SANITIZE=address,undefined -DVEXLO_BENCH=OFF
timed "thread sanitizer" suite build-tsan -DVEXLO_SANITIZE=thread -DVEXLO_BENCH=OFF
# The fuzz targets replay their corpora, then fuzz for a minute in all; any finding fails.
timed "fuzzing" bash scripts/fuzz.sh -max_total_time=60
echo "== all passed in $SECONDS s"
