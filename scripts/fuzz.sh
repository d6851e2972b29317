#!/usr/bin/env bash
# Fuzzes with libFuzzer (clang; the code under test is coverage-instrumented too) under the address
# and undefined-behaviour sanitizers: the reception path (fuzz_recv, corpus fuzz/corpus), the
# serial-line CAN session (fuzz_slcan, corpus fuzz/corpus_slcan), the server's socketcand
# commands (fuzz_serve, corpus fuzz/corpus_serve) and a whole socketcand connection of the server
# (fuzz_serve_conn, corpus fuzz/corpus_serve_conn). Each committed corpus is replayed first.
# Arguments go to libFuzzer; default: 10 million runs of each target (100,000 of the connection,
# which runs an event loop per input), new inputs kept in build-fuzz/. A -max_total_time is shared
# out: the reception path gets 40%, the others 20% each. Any finding fails. The build's and
# libFuzzer's output go to build-fuzz/*.log; one line per target says what it did, and on a finding
# its report is printed.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
for p in clang libclang-rt-14-dev; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || apt-get install -y -qq "$p" >/dev/null
done
mkdir -p build-fuzz
echo "fuzz: building the fuzz targets with clang in build-fuzz/"
{ CC=clang CXX=clang++ cmake -S . -B build-fuzz -DVEXLO_FUZZ=ON -DVEXLO_SIM=OFF -DVEXLO_BENCH=OFF \
    -DVEXLO_TESTS=OFF -DVEXLO_SANITIZE=address,undefined,fuzzer-no-link -DCMAKE_BUILD_TYPE=RelWithDebInfo &&
  cmake --build build-fuzz -j2 --target fuzz_recv fuzz_slcan fuzz_serve fuzz_serve_conn; } >build-fuzz/build.log 2>&1 ||
  { grep -E -B3 -A12 'error:|Error [0-9]|CMake Error' build-fuzz/build.log | head -n 200
    echo "fuzz: the build failed; its whole output: build-fuzz/build.log"; exit 1; }
[ $# -gt 0 ] || set -- -runs=10000000
# run TARGET CORPUS SHARE [RUNS]: replays the committed corpus, each input once on its own (a finding
# there fails before any fuzzing), then fuzzes with the arguments, a -max_total_time cut to SHARE
# percent and a -runs to RUNS percent (default 100).
# A finding prints libFuzzer's report (from its first error line) and where the input was kept.
finding() {
  sed -n '/ERROR\|runtime error\|deadly signal\|Test unit written/,$p' "$2" | head -n 150
  echo "fuzz: $1: a finding; libFuzzer's whole output: $2"
  exit 1
}
run() {
  local target=$1 corpus=$2 share=$3 runs=${4:-100} args=() a
  for a in "${ARGS[@]}"; do
    case $a in
      -max_total_time=*) a="-max_total_time=$(( (${a#*=} * share + 99) / 100 ))" ;;
      -runs=*) a="-runs=$(( (${a#*=} * runs + 99) / 100 ))" ;;
    esac
    args+=("$a")
  done
  local log=build-fuzz/replay-$target.log
  build-fuzz/fuzz/$target "$corpus"/* >"$log" 2>&1 || finding "$target" "$log"
  log=build-fuzz/$target.log
  echo "fuzz: $target: corpus replayed ($(ls "$corpus" | wc -l) inputs); fuzzing, libFuzzer's output in $log"
  mkdir -p build-fuzz/$(basename "$corpus")
  build-fuzz/fuzz/$target build-fuzz/$(basename "$corpus") "$corpus" "${args[@]}" >"$log" 2>&1 ||
    finding "$target" "$log"
  # libFuzzer's closing count ("Done N runs in S second(s)") and its last coverage figures.
  echo "fuzz: $target: $(sed -n 's/^Done \([0-9]*\) runs in \([0-9]*\) .*/\1 runs in \2 s/p' "$log")," \
    "$(grep -E '^#[0-9]+' "$log" | tail -n 1 | grep -o -E 'cov: [0-9]+ ft: [0-9]+ corp: [^ ]+'), no finding"
}
ARGS=("$@")
run fuzz_recv fuzz/corpus 40
run fuzz_slcan fuzz/corpus_slcan 20
run fuzz_serve fuzz/corpus_serve 20
run fuzz_serve_conn fuzz/corpus_serve_conn 20 1
