// The receive readiness descriptor against the simulated adapter, in one process.
//
//   BM_WakeLatency: both ways of waiting for frames in one run, at a low frame rate (VEXLO_EXT_RATE
//     frames/s per channel, default 200, for VEXLO_EXT_SECONDS, default 10; --short 1): channel
//     0's application thread blocks in poll() on the descriptor and then takes the frames with
//     VCI_Receive(.., 0); channel 1's thread waits in VCI_Receive(.., 1000). Latency runs from the
//     moment the reception path queued a frame to the moment the application thread has it in its
//     buffer. The queuing moment is the time stamp of the reception path's own frame trace line
//     (gdbg 0x20, standard output diverted to a file while measuring), written right after the
//     frame is pushed; for the descriptor path the figure therefore includes writing that line.
//     Reports p50 and p99 of each path in microseconds and the ratio p99(descriptor) /
//     p50(VCI_Receive) (target: at most 1/20).
//   BM_ReceptionCost: both channels at the bus ceiling, in rounds that rotate three applications:
//     one that drains with VCI_Receive every 5 ms and never asks for a descriptor; one that every
//     5 ms polls both descriptors without waiting and drains the readable ones (the same pattern of
//     drains, so only the library's work differs: signalling on the reception path, resetting on
//     the receive side); and one blocked in poll() on both, draining whenever one is readable (the
//     reception path then signals on nearly every message). Each round opens the device anew and
//     measures the event thread's CPU time (the reception path with libusb and the emulated USB
//     calls it makes) per frame queued, from the scheduler's account in nanoseconds. Reports the
//     median of each over VEXLO_EXT_ROUNDS rounds (default 3; --short 1) of VEXLO_EXT_LOAD_SECONDS
//     (default 5; --short 0.5) and the ratios to the first (target: within 2%).
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BenchSim.h"
#include "usb/SimTestbed.h"
#include "vexlo_ext.h"



static long long WallUs() {
    timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<long long>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

static unsigned Seq(const unsigned char* d) {
    return d[0] | d[1] << 8 | d[2] << 16 | static_cast<unsigned>(d[3]) << 24;
}

// Both channels started, uncabled, with a deep adapter buffer so that the emulation's stalls are
// not counted against the library.
static void OpenUncabled() {
    OpenAndStart();
    vs::SimDevice& sim = g_bed->Adapter(0);
    sim.SetCabled(false);
    sim.SetRxCapacity(4u << 20);
}

static double Percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    size_t i = static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
    return v[i];
}

// The queuing moments, in microseconds of the wall clock, by channel and sequence number, read from
// the reception path's frame trace lines.
static std::map<unsigned, long long> QueuedAt(const std::string& path, unsigned ch) {
    std::map<unsigned, long long> out;
    std::ifstream in(path);
    std::string line;
    const std::string tag = "void CanDev::Recv(CanXfer*)<";
    const std::string chan = ">: CAN_" + std::to_string(ch) + ": ";
    while (std::getline(in, line)) {
        if (line.find(tag) == std::string::npos || line.find(chan) == std::string::npos) continue;
        unsigned long sec = 0, usec = 0;
        unsigned d[4];
        size_t dat = line.find("DAT=");
        if (sscanf(line.c_str(), "%lu.%lu", &sec, &usec) != 2 || dat == std::string::npos) continue;
        if (sscanf(line.c_str() + dat, "DAT=%x %x %x %x", &d[0], &d[1], &d[2], &d[3]) != 4) continue;
        unsigned char b[4] = {static_cast<unsigned char>(d[0]), static_cast<unsigned char>(d[1]),
                              static_cast<unsigned char>(d[2]), static_cast<unsigned char>(d[3])};
        out[Seq(b)] = static_cast<long long>(sec) * 1000000 + static_cast<long long>(usec);
    }
    return out;
}

static void BM_WakeLatency(benchmark::State& state) {
    const double rate = EnvOr("VEXLO_EXT_RATE", 200);
    const double seconds = EnvOr("VEXLO_EXT_SECONDS", Span(10, 1));
    for (auto _ : state) {
        OpenUncabled();
        vs::SimDevice& sim = g_bed->Adapter(0);
        const int fd = vexlo_receive_fd(0, 0);
        // Standard output goes to a file while measuring: the trace lines carry the queuing moments.
        char path[] = "/tmp/vexlo-bench-ext-XXXXXX";
        int log = mkstemp(path);
        fflush(stdout);
        int saved = dup(1);
        dup2(log, 1);
        gdbg = 0x20;
        std::atomic<bool> stop(false);
        std::vector<std::pair<unsigned, long long>> got[2];
        std::thread polled([&] {
            CAN_OBJ buf[64];
            while (!stop) {
                pollfd p = {fd, POLLIN, 0};
                if (poll(&p, 1, 200) != 1) continue;
                unsigned n = VCI_Receive(4, 0, 0, buf, 64, 0);
                long long now = WallUs();
                for (unsigned i = 0; i < n; ++i) got[0].push_back({Seq(buf[i].Data), now});
            }
        });
        std::thread waited([&] {
            CAN_OBJ buf[64];
            while (!stop) {
                unsigned n = VCI_Receive(4, 0, 1, buf, 64, 1000);
                long long now = WallUs();
                for (unsigned i = 0; i < n; ++i) got[1].push_back({Seq(buf[i].Data), now});
            }
        });
        vs::SimGenConfig gen;
        gen.dlc = 8;
        gen.rate = rate;
        sim.StartGenerator(0, gen);
        gen.rate = rate * 0.97;  // the two channels drift against each other
        sim.StartGenerator(1, gen);
        usleep(static_cast<useconds_t>(seconds * 1e6));
        sim.StopGenerator(0);
        sim.StopGenerator(1);
        usleep(1200000);
        stop = true;
        polled.join();
        waited.join();
        gdbg = 0;
        fflush(stdout);
        dup2(saved, 1);
        close(saved);
        close(log);
        VCI_CloseDevice(4, 0);
        std::vector<double> lat[2];
        for (unsigned ch = 0; ch < 2; ++ch) {
            std::map<unsigned, long long> queued = QueuedAt(path, ch);
            for (auto& g : got[ch]) {
                auto it = queued.find(g.first);
                if (it != queued.end()) lat[ch].push_back(static_cast<double>(g.second - it->second));
            }
        }
        unlink(path);
        state.counters["fd_frames"] = static_cast<double>(lat[0].size());
        state.counters["fd_p50_us"] = Percentile(lat[0], 0.50);
        state.counters["fd_p99_us"] = Percentile(lat[0], 0.99);
        state.counters["recv_frames"] = static_cast<double>(lat[1].size());
        state.counters["recv_p50_us"] = Percentile(lat[1], 0.50);
        state.counters["recv_p99_us"] = Percentile(lat[1], 0.99);
        double recv50 = Percentile(lat[1], 0.50);
        state.counters["fd_p99_over_recv_p50"] = recv50 > 0 ? Percentile(lat[0], 0.99) / recv50 : 0;
        if (lat[0].empty() || lat[1].empty()) state.SkipWithError("no frames matched their trace lines");
    }
}
BENCHMARK(BM_WakeLatency)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

// Nanoseconds on a CPU of the event thread (named "vexlo-usb"), from the scheduler's account.
static double EventThreadNs() {
    double ns = 0;
    ForEachThread([&ns](const std::string& folder, const std::string& comm, const std::string&) {
        if (comm == "vexlo-usb") std::ifstream(folder + "/schedstat") >> ns;
    });
    return ns;
}

// How the application waits in a round at the ceiling.
enum LoadMode {
    kPolling = 0,  // no descriptor: VCI_Receive on both channels every 5 ms
    kFdPolled,     // descriptors made; every 5 ms, poll() them without waiting, drain the readable
    kFdBlocked,    // blocked in poll() on both descriptors, draining whenever one is readable
};
static const char* const kModeName[] = {"without_fd", "fd_every_5ms", "fd_blocked"};

// One round at the bus ceiling on both channels: the event thread's nanoseconds per frame.
static double LoadRound(LoadMode mode, double seconds, unsigned long long* frames) {
    OpenUncabled();
    vs::SimDevice& sim = g_bed->Adapter(0);
    const bool fd = mode != kPolling;
    pollfd p[2] = {{fd ? vexlo_receive_fd(0, 0) : -1, POLLIN, 0}, {fd ? vexlo_receive_fd(0, 1) : -1, POLLIN, 0}};
    std::atomic<bool> stop(false);
    std::thread app([&] {
        static CAN_OBJ buf[4096];
        while (!stop) {
            if (mode != kFdBlocked) usleep(5000);
            if (fd && poll(p, 2, mode == kFdBlocked ? 100 : 0) <= 0) continue;
            for (unsigned ch = 0; ch < 2; ++ch) {
                if (!fd || (p[ch].revents & POLLIN)) VCI_Receive(4, 0, ch, buf, 4096, 0);
            }
        }
    });
    vs::SimGenConfig gen;
    gen.rate = 21277;
    for (unsigned ch = 0; ch < 2; ++ch) sim.StartGenerator(ch, gen);
    usleep(500000);  // settled
    // Frames the reception path queued in the window: exactly the event thread's work, whatever
    // the application has taken by then.
    auto queued = [] {
        unsigned long long n = 0;
        for (unsigned ch = 0; ch < 2; ++ch) {
            VEXLO_STATS st;
            st.size = sizeof(st);
            if (vexlo_get_stats(0, ch, &st)) n += st.rx_frames;
        }
        return n;
    };
    unsigned long long r0 = queued();
    double ns0 = EventThreadNs();
    usleep(static_cast<useconds_t>(seconds * 1e6));
    double ns1 = EventThreadNs();
    unsigned long long r1 = queued();
    for (unsigned ch = 0; ch < 2; ++ch) sim.StopGenerator(ch);
    stop = true;
    app.join();
    VCI_CloseDevice(4, 0);
    *frames = r1 - r0;
    return r1 > r0 ? (ns1 - ns0) / static_cast<double>(r1 - r0) : 0;
}

static void BM_ReceptionCost(benchmark::State& state) {
    const int rounds = static_cast<int>(EnvOr("VEXLO_EXT_ROUNDS", Span(3, 1)));
    const double seconds = EnvOr("VEXLO_EXT_LOAD_SECONDS", Span(5, 0.5));
    for (auto _ : state) {
        std::vector<double> cost[3];
        unsigned long long frames[3] = {0, 0, 0};
        for (int r = 0; r < rounds; ++r) {
            for (int i = 0; i < 3; ++i) {
                // Rotate which mode goes first, so that a drift of the machine's load is shared.
                const int m = (i + r) % 3;
                unsigned long long n = 0;
                cost[m].push_back(LoadRound(static_cast<LoadMode>(m), seconds, &n));
                frames[m] += n;
                fprintf(stderr, "round %d %s: %.1f ns/frame, %llu frames\n", r, kModeName[m], cost[m].back(), n);
            }
        }
        const double base = Percentile(cost[0], 0.5);
        for (int m = 0; m < 3; ++m) {
            const double c = Percentile(cost[m], 0.5);
            state.counters[std::string(kModeName[m]) + "_ns_per_frame"] = c;
            state.counters[std::string(kModeName[m]) + "_frames_per_s"] =
                static_cast<double>(frames[m]) / (rounds * seconds);
            if (m > 0) state.counters[std::string(kModeName[m]) + "_over_without"] = base > 0 ? c / base : 0;
        }
    }
}
BENCHMARK(BM_ReceptionCost)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

int main(int argc, char** argv) { return BenchMain(argc, argv); }
