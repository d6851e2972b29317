// The frame path end to end through the real libusb and the simulated adapter, in one process.
//
//   BM_TransmitSlices: VCI_Transmit of 3 frames (one USB packet and its acknowledgement) against an
//     adapter that answers at once: slices per second, and the calling thread's CPU per slice.
//   BM_ReceiveAtCeiling: both channels receiving 0-byte standard frames at the bus ceiling
//     (21,277 frames/s each, a sequence number in the data bytes) while the application drains
//     them with VCI_Receive; VEXLO_E2E_SECONDS sets the length (default 60, 1 with --short).
//     Reports frames lost, duplicated or reordered, and CPU per received frame of the library's threads (the
//     application thread and the event thread "vexlo-usb", both including libusb and the emulated
//     USB calls they make) separately from the simulator's threads.
#include <benchmark/benchmark.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <memory>
#include <string>

#include "BenchSim.h"
#include "usb/SimTestbed.h"
#include "vexlo.h"

static double ThreadCpu() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// CPU seconds of this process's threads, split into the library's (this thread and the event
// thread) and everything else (the simulator's engine and umockdev's worker).
struct CpuSplit {
    double app = 0, events = 0, simulator = 0;
};
static CpuSplit ProcessCpu() {
    CpuSplit s;
    const double tick = static_cast<double>(sysconf(_SC_CLK_TCK));
    const std::string self = std::to_string(gettid());
    ForEachThread([&](const std::string& folder, const std::string& comm, const std::string& tid) {
        std::string stat;
        std::getline(std::ifstream(folder + "/stat"), stat);
        size_t close = stat.rfind(')');
        if (close == std::string::npos) return;
        // Fields after the command: state is field 3; utime and stime are fields 14 and 15.
        std::istringstream rest(stat.substr(close + 2));
        std::string field;
        double ut = 0, st = 0;
        for (int i = 3; i <= 15 && rest >> field; ++i) {
            if (i == 14) ut = std::stod(field);
            if (i == 15) st = std::stod(field);
        }
        double secs = (ut + st) / tick;
        if (tid == self) s.app += secs;
        else if (comm == "vexlo-usb") s.events += secs;
        else s.simulator += secs;
    });
    return s;
}

static void BM_TransmitSlices(benchmark::State& state) {
    OpenAndStart();
    g_bed->Adapter(0).SetTxCapacity(0, 1u << 20);  // never full: every slice is taken whole
    CAN_OBJ frames[3];
    memset(frames, 0, sizeof(frames));
    for (auto& f : frames) f.DataLength = 8;
    unsigned slices = 0, short_slices = 0;
    double cpu = 0;
    for (auto _ : state) {
        double c0 = ThreadCpu();
        unsigned n = VCI_Transmit(4, 0, 0, frames, 3);
        cpu += ThreadCpu() - c0;
        ++slices;
        if (n != 3) ++short_slices;
        // Keep the receiving side from filling up.
        if (slices % 1000 == 0) VCI_ClearBuffer(4, 0, 1);
    }
    VCI_CloseDevice(4, 0);
    if (short_slices) state.SkipWithError("slices not taken whole");
    state.counters["slices_per_s"] = benchmark::Counter(slices, benchmark::Counter::kIsRate);
    state.counters["caller_cpu_us_per_slice"] = cpu * 1e6 / slices;
}


static unsigned Seq(const CAN_OBJ& f) {
    return f.Data[0] | f.Data[1] << 8 | f.Data[2] << 16 | static_cast<unsigned>(f.Data[3]) << 24;
}

static void BM_ReceiveAtCeiling(benchmark::State& state) {
    const double seconds = EnvOr("VEXLO_E2E_SECONDS", Span(60, 1));
    for (auto _ : state) {
        OpenAndStart();
        vs::SimDevice& sim = g_bed->Adapter(0);
        sim.SetCabled(false);
        // The library is measured, not the emulation: a deep adapter buffer rides out the emulated
        // USB path's scheduling stalls (VEXLO_E2E_ADAPTER_BUFFER sets another depth in records).
        const char* depth = getenv("VEXLO_E2E_ADAPTER_BUFFER");
        sim.SetRxCapacity(depth ? strtoul(depth, nullptr, 0) : 4u << 20);
        vs::SimGenConfig gen;
        gen.rate = 21277;
        CpuSplit before = ProcessCpu();
        for (unsigned ch = 0; ch < 2; ++ch) sim.StartGenerator(ch, gen);
        unsigned next[2] = {0, 0};
        unsigned long long received = 0, lost = 0, dup_or_reordered = 0;
        static CAN_OBJ buf[4096];
        const uint64_t end = vs::SimTestbed::Now() + static_cast<uint64_t>(seconds * 1e9);
        auto drain = [&](unsigned ch) {
            unsigned got = VCI_Receive(4, 0, ch, buf, 4096, 0);
            for (unsigned i = 0; i < got; ++i) {
                unsigned s = Seq(buf[i]);
                if (s > next[ch]) lost += s - next[ch];
                if (s < next[ch]) ++dup_or_reordered;
                else next[ch] = s + 1;
            }
            received += got;
            return got;
        };
        while (vs::SimTestbed::Now() < end) {
            usleep(5000);
            drain(0);
            drain(1);
        }
        for (unsigned ch = 0; ch < 2; ++ch) sim.StopGenerator(ch);
        for (int i = 0; i < 3000 && sim.RxPending() != 0; ++i) usleep(10000);
        usleep(100000);
        while (drain(0) + drain(1) != 0) {
        }
        CpuSplit after = ProcessCpu();
        unsigned long long sent = sim.GeneratorSent(0) + sim.GeneratorSent(1);
        lost += sent - (next[0] + next[1] > sent ? sent : next[0] + next[1]);
        state.counters["frames_per_s"] = static_cast<double>(received) / seconds;
        state.counters["ratio_to_ceiling"] = static_cast<double>(received) / seconds / 42554.0;
        state.counters["lost"] = static_cast<double>(lost);
        state.counters["dup_or_reordered"] = static_cast<double>(dup_or_reordered);
        state.counters["dropped_by_adapter"] = static_cast<double>(sim.RxDropped());
        double app = after.app - before.app, events = after.events - before.events;
        state.counters["library_cpu_us_per_frame"] = (app + events) * 1e6 / received;
        state.counters["app_thread_cpu_us_per_frame"] = app * 1e6 / received;
        state.counters["event_thread_cpu_us_per_frame"] = events * 1e6 / received;
        state.counters["simulator_cpu_us_per_frame"] = (after.simulator - before.simulator) * 1e6 / received;
        VCI_CloseDevice(4, 0);
        if (lost || dup_or_reordered) {
            fprintf(stderr, "received %llu, lost %llu, duplicated or reordered %llu, dropped by the adapter %llu\n",
                    received, lost, dup_or_reordered, static_cast<unsigned long long>(sim.RxDropped()));
            state.SkipWithError("frames lost, duplicated or reordered");
        }
    }
}
static void Add() {
    benchmark::RegisterBenchmark("BM_TransmitSlices", BM_TransmitSlices)->MinTime(Span(3.0, 0.05))->UseRealTime();
    benchmark::RegisterBenchmark("BM_ReceiveAtCeiling", BM_ReceiveAtCeiling)
        ->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);
}

int main(int argc, char** argv) { return BenchMain(argc, argv, Add); }
