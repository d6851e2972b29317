// --short, which every benchmark program takes: each benchmark once and briefly (a second or less),
// to show that it still builds and runs; scripts/test.sh runs every benchmark so. The figures of
// such a run mean nothing.
#pragma once

#include <benchmark/benchmark.h>

#include <cstring>

inline bool& BenchShort() {
    static bool on = false;
    return on;
}

// `full` in a measuring run, `brief` in a short one: durations, rounds, cycles, minimum times.
inline double Span(double full, double brief) { return BenchShort() ? brief : full; }

// Takes --short out of the arguments before the benchmark library reads them; in a short run the
// benchmarks without a minimum time of their own get the library's smallest.
inline void TakeShortOption(int* argc, char** argv) {
    static char min_time[] = "--benchmark_min_time=0.01";
    int out = 1;
    for (int i = 1; i < *argc; ++i) {
        if (std::strcmp(argv[i], "--short") == 0) BenchShort() = true;
        else argv[out++] = argv[i];
    }
    if (BenchShort()) argv[out++] = min_time;  // in the place --short took
    argv[out] = nullptr;
    *argc = out;
}

// The benchmark library's start with --short taken out first; false on an argument it does not know.
inline bool BenchInit(int* argc, char** argv) {
    TakeShortOption(argc, argv);
    benchmark::Initialize(argc, argv);
    return !benchmark::ReportUnrecognizedArguments(*argc, argv);
}
