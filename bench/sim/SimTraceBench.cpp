// vexlo-sim's bus trace: lines per second that the engine can hand to SimTrace (formatting under
// the trace's lock) while the writer thread puts them into a file, against the two-channel bus
// ceiling of 42,553 frames/s.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "BenchShort.h"
#include "tool/SimTrace.h"

using namespace vexlo_sim;

static void BM_TraceToFile(benchmark::State& state) {
    char path[] = "/tmp/vexlo-trace-bench-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) {
        state.SkipWithError("mkstemp failed");
        return;
    }
    close(fd);
    std::string error;
    uint64_t lines = 0;
    auto t0 = std::chrono::steady_clock::now();
    {
        SimTrace trace;
        if (!trace.Open(path, &error)) {
            state.SkipWithError(error.c_str());
            return;
        }
        SimFrame f;
        f.dlc = 8;
        for (auto _ : state) {
            f.id = static_cast<uint32_t>(lines & 0x7FF);
            f.data[0] = static_cast<uint8_t>(lines);
            trace.Add(0, static_cast<unsigned>(lines & 1), f, 1000000000ull + lines * 23500);
            ++lines;
        }
    }  // Close writes out the rest: part of the cost
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    unlink(path);
    state.counters["lines_per_s"] = static_cast<double>(lines) / secs;
    state.counters["ratio_to_ceiling"] = static_cast<double>(lines) / secs / 42553.0;
}
int main(int argc, char** argv) {
    if (!BenchInit(&argc, argv)) return 1;
    benchmark::RegisterBenchmark("BM_TraceToFile", BM_TraceToFile)->MinTime(Span(2.0, 0.05))->UseRealTime();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
