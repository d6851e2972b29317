// Command round trips per second and frames per second on 0x82 through the real libusb, against
// the simulated adapter. The receive benchmark runs both channels' generators at the bus ceiling
// (0-byte standard frames at 1 Mbit/s, 2 x 21,277 frames/s) and reads them the way a driver does:
// one 1024-byte transfer on 0x82, resubmitted from its completion.
#include <benchmark/benchmark.h>
#include <libusb.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <memory>

#include "BenchShort.h"
#include "usb/SimTestbed.h"

using namespace vexlo_sim;

namespace {

constexpr double kCeiling = 2 * 21277.0;

SimTestbed* g_bed = nullptr;
libusb_device_handle* g_h = nullptr;

bool Exchange(const Bytes& cmd, Bytes* ack) {
    Bytes c = cmd;
    int n = 0;
    if (libusb_bulk_transfer(g_h, kEpCmdOut, c.data(), static_cast<int>(c.size()), &n, 1000) != 0) return false;
    ack->assign(64, 0);
    if (libusb_bulk_transfer(g_h, kEpCmdIn, ack->data(), 64, &n, 1000) != 0) return false;
    ack->resize(static_cast<size_t>(n));
    return true;
}

bool StartChannel(unsigned ch) {
    uint8_t sel = static_cast<uint8_t>(ch << 4);
    Bytes ack;
    return Exchange({0x12, kCmdTiming, 0x04, 0x00, sel, 0x00, 0x14}, &ack) &&
           Exchange({0x12, kCmdFilter, 0x0A, 0x00, sel, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}, &ack) &&
           Exchange({0x12, kCmdStart, 0x02, 0x00, sel}, &ack);
}

double CpuSeconds() {
    rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

void BM_CommandRoundTrip(benchmark::State& state) {
    const Bytes cmd = {0x12, kCmdHwVersion, 0x01, 0x00};
    Bytes ack;
    for (auto _ : state) {
        if (!Exchange(cmd, &ack) || ack.size() < 6) {
            state.SkipWithError("exchange failed");
            break;
        }
    }
    state.counters["round_trips_per_s"] = benchmark::Counter(static_cast<double>(state.iterations()),
                                                             benchmark::Counter::kIsRate);
}

struct Reader {
    unsigned char buf[1024];
    libusb_transfer* t = nullptr;
    uint64_t frames = 0;
    uint64_t completions = 0;
    uint64_t gaps = 0;           // sequence breaks seen per channel
    uint32_t next_seq[2] = {0, 0};
    bool running = true;
    bool done = false;
};

void OnData(libusb_transfer* t) {
    auto* r = static_cast<Reader*>(t->user_data);
    if (t->status == LIBUSB_TRANSFER_COMPLETED) {
        ++r->completions;
        for (int off = 0; off + 19 <= t->actual_length; off += 19) {
            SimRecord rec = SimRecord::Decode(t->buffer + off);
            if (rec.event != kEvFrame) continue;
            ++r->frames;
            unsigned ch = rec.Channel() & 1;
            uint32_t seq = rec.ToFrame().id;  // identifiers count up, wrapping at 2048
            if (seq != (r->next_seq[ch] & 0x7FF)) ++r->gaps;
            r->next_seq[ch] = seq + 1;
        }
    }
    if (r->running && libusb_submit_transfer(t) == 0) return;
    r->done = true;
}

void BM_ReceiveBothChannelsAtCeiling(benchmark::State& state) {
    SimDevice& dev = g_bed->Adapter(0);
    dev.SetCabled(false);  // two buses, each carrying its own channel's traffic
    if (!StartChannel(0) || !StartChannel(1)) {
        state.SkipWithError("channel start failed");
        return;
    }
    Reader r;
    r.t = libusb_alloc_transfer(0);
    libusb_fill_bulk_transfer(r.t, g_h, kEpDataIn, r.buf, sizeof r.buf, &OnData, &r, 0);
    libusb_submit_transfer(r.t);
    SimGenConfig cfg;  // rate 0: as fast as the bus, 0-byte standard frames, counting identifiers
    cfg.counter_payload = false;
    dev.StartGenerator(0, cfg);
    dev.StartGenerator(1, cfg);

    double cpu0 = CpuSeconds();
    auto t0 = std::chrono::steady_clock::now();
    uint64_t f0 = r.frames;
    for (auto _ : state) {
        auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(Span(3, 0.5));
        while (std::chrono::steady_clock::now() < until) {
            timeval tv{0, 100000};
            libusb_handle_events_timeout(nullptr, &tv);
        }
    }
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    double cpu = CpuSeconds() - cpu0;
    dev.StopGenerator(0);
    dev.StopGenerator(1);
    r.running = false;
    libusb_cancel_transfer(r.t);
    while (!r.done) {
        timeval tv{0, 100000};
        libusb_handle_events_timeout(nullptr, &tv);
    }
    libusb_free_transfer(r.t);

    double fps = (r.frames - f0) / secs;
    state.counters["frames_per_s"] = fps;
    state.counters["ratio_to_ceiling"] = fps / kCeiling;
    state.counters["frames_per_transfer"] = r.completions ? double(r.frames) / r.completions : 0;
    state.counters["sequence_gaps"] = static_cast<double>(r.gaps);
    state.counters["dropped_by_adapter"] = static_cast<double>(dev.RxDropped());
    state.counters["cpu_cores"] = cpu / secs;
}

// CPU used by the process while libusb's event loop waits on an idle adapter with both IN
// endpoints armed.
void BM_IdleEventLoop(benchmark::State& state) {
    unsigned char a[64], d[1024];
    int s = 0;
    libusb_transfer* t1 = libusb_alloc_transfer(0);
    libusb_transfer* t2 = libusb_alloc_transfer(0);
    auto cb = [](libusb_transfer* t) { ++*static_cast<int*>(t->user_data); };
    libusb_fill_bulk_transfer(t1, g_h, kEpCmdIn, a, 64, cb, &s, 0);
    libusb_fill_bulk_transfer(t2, g_h, kEpDataIn, d, 1024, cb, &s, 0);
    libusb_submit_transfer(t1);
    libusb_submit_transfer(t2);
    double cpu0 = CpuSeconds();
    auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state) {
        auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(Span(2, 0.5));
        while (std::chrono::steady_clock::now() < until) {
            timeval tv{0, 100000};
            libusb_handle_events_timeout(nullptr, &tv);
        }
    }
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    state.counters["cpu_cores"] = (CpuSeconds() - cpu0) / secs;
    libusb_cancel_transfer(t1);
    libusb_cancel_transfer(t2);
    while (s < 2) {
        timeval tv{0, 100000};
        libusb_handle_events_timeout(nullptr, &tv);
    }
    libusb_free_transfer(t1);
    libusb_free_transfer(t2);
}

}  // namespace

int main(int argc, char** argv) {
    if (!BenchInit(&argc, argv)) return 1;
    benchmark::RegisterBenchmark("BM_CommandRoundTrip", BM_CommandRoundTrip)->MinTime(Span(2.0, 0.05))->UseRealTime();
    benchmark::RegisterBenchmark("BM_ReceiveBothChannelsAtCeiling", BM_ReceiveBothChannelsAtCeiling)
        ->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
    benchmark::RegisterBenchmark("BM_IdleEventLoop", BM_IdleEventLoop)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
    // The testbed comes before libusb's default context, and lives as long as the process.
    auto bed = std::make_unique<SimTestbed>(1);
    if (!bed->Ok()) return 1;
    g_bed = bed.get();
    if (libusb_init(nullptr) != 0) return 1;
    g_h = libusb_open_device_with_vid_pid(nullptr, 0x0471, 0x1200);
    if (!g_h || libusb_claim_interface(g_h, 0) != 0) {
        std::fprintf(stderr, "sim_bench: no simulated adapter\n");
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    libusb_release_interface(g_h, 0);
    libusb_close(g_h);
    return 0;
}
