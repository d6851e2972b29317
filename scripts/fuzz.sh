#!/usr/bin/env bash
# Fuzzes the reception path with libFuzzer (clang; the library code is coverage-instrumented too)
# under the address and undefined-behaviour sanitizers. The committed corpus is replayed first.
# Arguments go to libFuzzer; default: 10 million runs from the committed corpus, new inputs kept in
# build-fuzz/corpus. Any finding fails.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
for p in clang libclang-rt-14-dev; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || apt-get install -y -qq "$p" >/dev/null
done
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DVEXLO_FUZZ=ON -DVEXLO_SIM=OFF -DVEXLO_BENCH=OFF \
  -DVEXLO_TESTS=OFF -DVEXLO_SANITIZE=address,undefined,fuzzer-no-link -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build-fuzz -j2 --target fuzz_recv
mkdir -p build-fuzz/corpus
# First every committed input once, on its own: a finding there fails before any fuzzing.
build-fuzz/fuzz/fuzz_recv fuzz/corpus/* >build-fuzz/replay.log 2>&1 || { cat build-fuzz/replay.log; exit 1; }
echo "fuzz: corpus replayed ($(ls fuzz/corpus | wc -l) inputs)"
[ $# -gt 0 ] || set -- -runs=10000000
exec build-fuzz/fuzz/fuzz_recv build-fuzz/corpus fuzz/corpus "$@"
