#!/usr/bin/env bash
# The whole test suite on a fresh machine: installs what it needs, builds everything, runs every
# test, then the thread-sanitizer build of the queue, thread and notice tests and the
# address-sanitizer build of the device tests.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

werror=OFF
[ "${CI:-}" = "true" ] && werror=ON
jobs=2

echo "== build"
cmake -S . -B build -DVEXLO_WERROR=$werror >/dev/null
cmake --build build -j$jobs
echo "== tests"
(cd build && ctest -j$jobs --output-on-failure)

echo "== thread sanitizer: rings, threads, notices"
cmake -S . -B build-tsan -DVEXLO_SANITIZE=thread -DVEXLO_BENCH=OFF -DVEXLO_WERROR=$werror >/dev/null
cmake --build build-tsan -j$jobs --target test_fifo test_sync test_threads
(cd build-tsan && ctest -j$jobs --output-on-failure -L threads)

if [ -d sim ] && grep -q vexlo_sim_test tests/CMakeLists.txt 2>/dev/null; then
  echo "== address sanitizer: device open, close and traffic"
  cmake -S . -B build-asan -DVEXLO_SANITIZE=address,undefined -DVEXLO_BENCH=OFF -DVEXLO_WERROR=$werror >/dev/null
  cmake --build build-asan -j$jobs --target test_device
  (cd build-asan && ctest -j$jobs --output-on-failure -R "^(OpenTest|CommandTest|NoAdapterTest|TwoAdapterTest)\.")
fi
