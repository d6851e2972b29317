// Soak runs against the simulated adapter, in one process: what a long-lived application would
// accumulate. Both report the process's descriptors (entries of /proc/self/fd) and resident memory
// (VmRSS) before and after, and the heap in use (mallinfo2).
//
//   BM_OpenCloseCycles: VEXLO_SOAK_CYCLES (default 1000; --short 10) cycles of open, init and start
//     both channels, a readiness descriptor, 8 frames transmitted on each channel and received on the
//     other (the two channels are cabled together), close. "Before" is taken after the first cycle,
//     since libusb's context is made on the first open and kept for the process; the figures before
//     any open are reported too. Any frame missing or different fails the run.
//   BM_CeilingSoak: both channels receiving 0-byte standard frames at the bus ceiling (21,277
//     frames/s each, a sequence number in the data bytes) for VEXLO_SOAK_SECONDS (default 600;
//     --short 1), drained with VCI_Receive every 5 ms. Losses are told apart by where they happen:
//     records the simulated adapter dropped because its buffer was full (the emulated USB path did
//     not keep up, typically on a loaded machine; VEXLO_SOAK_ADAPTER_BUFFER sets the depth in
//     records) and frames the library lost because its receive queue was full (vexlo_get_stats'
//     rx_lost).
//     Descriptors and resident memory are taken every minute, to show growth during the run.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <malloc.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "BenchSim.h"
#include "usb/SimTestbed.h"
#include "vexlo_ext.h"



static int CountDescriptors() {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (dirent* e = d ? readdir(d) : nullptr) {
        if (e->d_name[0] != '.') ++n;
    }
    if (d) closedir(d);
    return n - 1;  // the directory's own descriptor
}

// The simulator's threads open and close descriptors of their own for a moment now and then; the
// least of a few counts 20 ms apart leaves those out.
static int OpenDescriptors() {
    int n = CountDescriptors();
    for (int i = 0; i < 4; ++i) {
        usleep(20000);
        n = std::min(n, CountDescriptors());
    }
    return n;
}

// The targets of the open descriptors, one line, for a report when their count changed.
static std::string DescriptorTargets() {
    std::string out;
    DIR* d = opendir("/proc/self/fd");
    while (dirent* e = d ? readdir(d) : nullptr) {
        if (e->d_name[0] == '.') continue;
        char target[256];
        ssize_t n = readlink((std::string("/proc/self/fd/") + e->d_name).c_str(), target, sizeof(target) - 1);
        target[n > 0 ? n : 0] = 0;
        out += std::string(" ") + e->d_name + "=" + target;
    }
    if (d) closedir(d);
    return out;
}

static long ResidentKiB() {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, 6, "VmRSS:") == 0) return atol(line.c_str() + 6);
    }
    return -1;
}

// Bytes of the heap in use (allocated and not freed), which resident memory cannot tell from pages
// the allocator keeps after a free.
static double HeapKiB() {
    struct mallinfo2 m = mallinfo2();
    return static_cast<double>(m.uordblks + m.hblkhd) / 1024.0;
}

// One cycle; false if anything failed or a frame did not arrive as sent.
static bool Cycle(unsigned cycle) {
    if (!OpenAndStart()) return false;
    bool ok = true;
    const unsigned kFrames = 8;
    for (unsigned ch = 0; ch < 2 && ok; ++ch) {
        const int fd = vexlo_receive_fd(0, 1 - ch);
        CAN_OBJ out[kFrames];
        memset(out, 0, sizeof(out));
        for (unsigned i = 0; i < kFrames; ++i) {
            out[i].Id = 0x100 + ch * 0x10 + i;
            out[i].DataLength = 8;
            memcpy(out[i].Data, &cycle, sizeof(cycle));
            out[i].Data[7] = static_cast<unsigned char>(i);
        }
        ok = VCI_Transmit(4, 0, ch, out, kFrames) == kFrames;
        CAN_OBJ in[kFrames];
        unsigned got = 0;
        for (int tries = 0; ok && got < kFrames && tries < 100; ++tries) {
            pollfd p = {fd, POLLIN, 0};
            if (poll(&p, 1, 100) == 1) got += VCI_Receive(4, 0, 1 - ch, in + got, kFrames - got, 0);
        }
        ok = ok && got == kFrames;
        for (unsigned i = 0; ok && i < kFrames; ++i) {
            ok = in[i].Id == out[i].Id && in[i].DataLength == 8 && memcmp(in[i].Data, out[i].Data, 8) == 0;
        }
    }
    VCI_CloseDevice(4, 0);
    g_bed->Adapter(0).ClearSent();  // the simulator's record of the host's packets, not ours
    return ok;
}

static void BM_OpenCloseCycles(benchmark::State& state) {
    const unsigned cycles = static_cast<unsigned>(EnvOr("VEXLO_SOAK_CYCLES", Span(1000, 10)));
    for (auto _ : state) {
        g_bed->Adapter(0).SetCabled(true);
        const int fd_start = OpenDescriptors();
        const long rss_start = ResidentKiB();
        const double heap_start = HeapKiB();
        unsigned failed = Cycle(0) ? 0 : 1;
        const int fd_before = OpenDescriptors();
        const long rss_before = ResidentKiB();
        const double heap_before = HeapKiB();
        const std::string targets_before = DescriptorTargets();
        std::vector<double> secs;
        for (unsigned c = 1; c < cycles; ++c) {
            const uint64_t t0 = vs::SimTestbed::Now();
            if (!Cycle(c)) ++failed;
            secs.push_back(static_cast<double>(vs::SimTestbed::Now() - t0) / 1e9);
            if (c % 100 == 0) {
                fprintf(stderr, "cycle %u: %d descriptors, %ld KiB resident, %.1f KiB heap in use\n", c,
                        OpenDescriptors(), ResidentKiB(), HeapKiB());
            }
        }
        const int fd_after = OpenDescriptors();
        const long rss_after = ResidentKiB();
        const double heap_after = HeapKiB();
        double total = 0;
        for (double s : secs) total += s;
        std::sort(secs.begin(), secs.end());
        state.counters["cycles"] = cycles;
        state.counters["failed_cycles"] = failed;
        state.counters["fd_before_any_open"] = fd_start;
        state.counters["fd_after_first_cycle"] = fd_before;
        state.counters["fd_after_last_cycle"] = fd_after;
        state.counters["rss_kib_before_any_open"] = static_cast<double>(rss_start);
        state.counters["rss_kib_after_first_cycle"] = static_cast<double>(rss_before);
        state.counters["rss_kib_after_last_cycle"] = static_cast<double>(rss_after);
        state.counters["heap_kib_before_any_open"] = heap_start;
        state.counters["heap_kib_after_first_cycle"] = heap_before;
        state.counters["heap_kib_after_last_cycle"] = heap_after;
        if (!secs.empty()) {
            state.counters["ms_per_cycle_mean"] = total * 1e3 / static_cast<double>(secs.size());
            state.counters["ms_per_cycle_p50"] = secs[secs.size() / 2] * 1e3;
            state.counters["ms_per_cycle_max"] = secs.back() * 1e3;
        }
        if (failed) state.SkipWithError("cycles failed or lost frames");
        if (fd_after != fd_before) {
            fprintf(stderr, "descriptors after the first cycle:%s\nafter the last:%s\n", targets_before.c_str(),
                    DescriptorTargets().c_str());
            state.SkipWithError("descriptors leaked");
        }
    }
}
BENCHMARK(BM_OpenCloseCycles)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

static unsigned Seq(const CAN_OBJ& f) {
    return f.Data[0] | f.Data[1] << 8 | f.Data[2] << 16 | static_cast<unsigned>(f.Data[3]) << 24;
}

static void BM_CeilingSoak(benchmark::State& state) {
    const double seconds = EnvOr("VEXLO_SOAK_SECONDS", Span(600, 1));
    for (auto _ : state) {
        const int fd_before = OpenDescriptors();
        const long rss_before = ResidentKiB();
        if (!OpenAndStart()) {
            state.SkipWithError("open failed");
            break;
        }
        vs::SimDevice& sim = g_bed->Adapter(0);
        sim.SetCabled(false);
        sim.SetRxCapacity(static_cast<size_t>(EnvOr("VEXLO_SOAK_ADAPTER_BUFFER", 4u << 20)));
        const int fd_open = OpenDescriptors();
        const long rss_open = ResidentKiB();
        vs::SimGenConfig gen;
        gen.rate = 21277;
        for (unsigned ch = 0; ch < 2; ++ch) sim.StartGenerator(ch, gen);
        unsigned next[2] = {0, 0};
        unsigned long long received = 0, gaps = 0, dup_or_reordered = 0;
        static CAN_OBJ buf[4096];
        auto drain = [&](unsigned ch) {
            unsigned got = VCI_Receive(4, 0, ch, buf, 4096, 0);
            for (unsigned i = 0; i < got; ++i) {
                unsigned s = Seq(buf[i]);
                if (s > next[ch]) gaps += s - next[ch];
                if (s < next[ch]) ++dup_or_reordered;
                else next[ch] = s + 1;
            }
            received += got;
            return got;
        };
        const uint64_t start = vs::SimTestbed::Now();
        const uint64_t end = start + static_cast<uint64_t>(seconds * 1e9);
        uint64_t next_mark = start + 60000000000ull;
        while (vs::SimTestbed::Now() < end) {
            usleep(5000);
            drain(0);
            drain(1);
            if (vs::SimTestbed::Now() >= next_mark) {
                next_mark += 60000000000ull;
                fprintf(stderr, "%.0f s: %llu frames, %d descriptors, %ld KiB resident\n",
                        static_cast<double>(vs::SimTestbed::Now() - start) / 1e9, received,
                        OpenDescriptors(), ResidentKiB());
            }
        }
        for (unsigned ch = 0; ch < 2; ++ch) sim.StopGenerator(ch);
        for (int i = 0; i < 3000 && sim.RxPending() != 0; ++i) usleep(10000);
        usleep(100000);
        while (drain(0) + drain(1) != 0) {
        }
        unsigned long long queue_lost = 0;
        for (unsigned ch = 0; ch < 2; ++ch) {
            VEXLO_STATS st;
            st.size = sizeof(st);
            if (vexlo_get_stats(0, ch, &st)) queue_lost += st.rx_lost;
        }
        const int fd_running = OpenDescriptors();
        const long rss_running = ResidentKiB();
        const unsigned long long sent = sim.GeneratorSent(0) + sim.GeneratorSent(1);
        const unsigned long long dropped = sim.RxDropped();
        // Frames never seen at the end of a channel count as lost too.
        const unsigned long long seen = std::min<unsigned long long>(sent, next[0] + next[1]);
        const unsigned long long lost = gaps + (sent - seen);
        VCI_CloseDevice(4, 0);
        state.counters["seconds"] = seconds;
        state.counters["frames_sent"] = static_cast<double>(sent);
        state.counters["frames_received"] = static_cast<double>(received);
        state.counters["ratio_to_ceiling"] = static_cast<double>(received) / seconds / 42554.0;
        state.counters["lost"] = static_cast<double>(lost);
        state.counters["lost_by_adapter_overrun"] = static_cast<double>(dropped);
        state.counters["lost_in_library_queue"] = static_cast<double>(queue_lost);
        state.counters["dup_or_reordered"] = static_cast<double>(dup_or_reordered);
        state.counters["fd_before_open"] = fd_before;
        state.counters["fd_open_idle"] = fd_open;
        state.counters["fd_open_after_run"] = fd_running;
        state.counters["fd_after_close"] = OpenDescriptors();
        state.counters["rss_kib_before_open"] = static_cast<double>(rss_before);
        state.counters["rss_kib_open_idle"] = static_cast<double>(rss_open);
        state.counters["rss_kib_open_after_run"] = static_cast<double>(rss_running);
        state.counters["rss_kib_after_close"] = static_cast<double>(ResidentKiB());
        if (lost || dup_or_reordered) {
            fprintf(stderr, "sent %llu, received %llu, lost %llu (adapter overrun %llu, library queue %llu), "
                    "duplicated or reordered %llu\n", sent, received, lost, dropped, queue_lost, dup_or_reordered);
            state.SkipWithError("frames lost, duplicated or reordered");
        }
    }
}
BENCHMARK(BM_CeilingSoak)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

int main(int argc, char** argv) { return BenchMain(argc, argv); }
