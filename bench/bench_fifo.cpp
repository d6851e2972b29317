// The receive ring: push+pop pairs on one core, and a producer/consumer stream on two.
#include <benchmark/benchmark.h>

#include <cstring>
#include <thread>

#include "BenchShort.h"
#include "CanFifo.h"

static void BM_FifoPushPopPair(benchmark::State& state) {
    CanFifo fifo(0x10000);
    CAN_OBJ in, out;
    memset(&in, 0, sizeof(in));
    for (auto _ : state) {
        ++in.Id;
        fifo.Push(&in);
        fifo.Pop(&out);
        benchmark::DoNotOptimize(out);
    }
    state.SetItemsProcessed(state.iterations());
    state.SetLabel("push+pop pairs");
}
BENCHMARK(BM_FifoPushPopPair);

// Batches of 64 pushes then 64 pops: the pattern of one USB completion followed by a receive.
static void BM_FifoBatch64(benchmark::State& state) {
    CanFifo fifo(0x10000);
    CAN_OBJ in, out;
    memset(&in, 0, sizeof(in));
    for (auto _ : state) {
        for (int i = 0; i < 64; ++i) {
            ++in.Id;
            fifo.Push(&in);
        }
        for (int i = 0; i < 64; ++i) fifo.Pop(&out);
        benchmark::DoNotOptimize(out);
    }
    state.SetItemsProcessed(state.iterations() * 64);
}
BENCHMARK(BM_FifoBatch64);

// One producer thread, the benchmark thread consuming: frames per second through the ring.
static void BM_FifoTwoThreadStream(benchmark::State& state) {
    const U32 frames = 1u << 22;
    U64 checksum = 0;
    for (auto _ : state) {
        CanFifo fifo(0x10000);
        std::thread producer([&] {
            CAN_OBJ in;
            memset(&in, 0, sizeof(in));
            for (U32 i = 0; i < frames;) {
                in.Id = i;
                if (fifo.Push(&in)) ++i;
            }
        });
        CAN_OBJ out;
        U32 expect = 0;
        while (expect < frames) {
            if (fifo.Pop(&out)) {
                checksum += out.Id ^ expect;
                ++expect;
            }
        }
        producer.join();
    }
    if (checksum != 0) state.SkipWithError("frames reordered");
    state.SetItemsProcessed(state.iterations() * frames);
}
BENCHMARK(BM_FifoTwoThreadStream)->Unit(benchmark::kMillisecond)->UseRealTime();

int main(int argc, char** argv) {
    if (!BenchInit(&argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
