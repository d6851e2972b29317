// The extension calls through the simulated adapter, in one case: the counters against the
// traffic (and the error record its notices write), bad arguments, the receive readiness
// descriptor against the queue (also under a racing drain), notices as error frames in order among
// the frames of vexlo_receive, host times against a generator's spacing, and the loss of a full
// queue, which keeps its oldest frames. Then a log function that calls the library.
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "LibFixture.h"
#include "vexlo_ext.h"

using ExtTest = LibTest;

TEST_F(ExtTest, CountersAndReadinessFollowTheTraffic) {
    // The application shares the event thread's CPU (see the race below).
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu(), &one);
    ASSERT_EQ(sched_setaffinity(0, sizeof(one), &one), 0);
    OpenAndStart();
    auto Readable = [](int fd, int ms) { pollfd p = {fd, POLLIN, 0}; return poll(&p, 1, ms) == 1; };
    // Sent on 0 (the adapter takes 2 of 3) and received on 1, rejected (bad length, past the cache,
    // channel 2), notices by code (0xEF counts as 1, 0xE6 as none); channel 1 is read with an older
    // caller's record, which is filled only as far as its size; then bad arguments.
    CAN_OBJ buf[3] = {};
    Sim().SetTxAccept(2);
    EXPECT_EQ(VCI_Transmit(kType, 0, 0, buf, 3), 2u);
    // The junk below must not reach the adapter's data stream before the two frames do: gathered
    // into one bad message with them, it would take them along.
    for (int i = 100; i-- && VCI_GetReceiveNum(kType, 0, 1) < 2;) usleep(50000);
    for (int code : {0xE2, 0xE3, 0xE4, 0xEF, 0xE5, 0xE6}) Sim().InjectNotice(0, uint8_t(code), 0x11, 0x22, 0x33);
    for (int i = 0; i < 17; ++i) Sim().InjectRaw(vs::Bytes(i == 0 ? 21 : 64, 0));
    Sim().InjectRaw(Pkt({0, 0, 0, 0, 0, 0, 0x20, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    // (12 bytes: room for queue_peak and half of rx_frames.)
    VEXLO_STATS a = {sizeof(VEXLO_STATS), 0, 0, 0, 0, 0, {}, 0}, b = {12, 0, 99, 7, 0, 0, {}, 0};
    for (int i = 99; i-- && vexlo_get_stats(0, 0, &a) && vexlo_get_stats(0, 1, &b) && a.bad_messages + b.queue_peak < 5;)
        usleep(50000);
    EXPECT_EQ(std::vector<unsigned long long>({a.tx_frames, a.rx_frames, b.queue_peak, b.rx_frames, b.rx_lost, a.bad_messages,
                                               a.notices[0], a.notices[1], a.notices[2], a.notices[3], a.notices[4]}),
              std::vector<unsigned long long>({2, 0, 2, 99, 7, 3, 1, 1, 1, 1, 1}));
    // The error record holds what the notices wrote (0xE5's code, 0xE3's and 0xE4's data); a read
    // clears it.
    CAN_ERR err;
    EXPECT_TRUE(VCI_ReadErrInfo(kType, 0, 0, &err) && err.ErrorCode == 16 && err.Code4Data[0] == 0x11 &&
                err.Code4Data[2] == 0x33 && err.Code8Data == 0x11);
    EXPECT_TRUE(VCI_ReadErrInfo(kType, 0, 0, &err) && err.ErrorCode == 0 && err.Code4Data[2] == 0 &&
                VCI_ReadErrInfo(kType, 0, static_cast<unsigned>(-1), &err) && err.ErrorCode == 0);
    Capture();
    EXPECT_EQ(vexlo_get_stats(0, 2, &a) + vexlo_get_stats(1, 0, &a) + vexlo_get_stats(0, 0, nullptr) +
                  static_cast<unsigned>(vexlo_receive_fd(32, 0) + vexlo_receive_fd(1, 1) + 2), 0u);
    EXPECT_EQ(CountLines(Log(), std::regex(".*: ERR: .*vexlo_.*<[0-9]+>: (invalid parameters|device not opened)")), 5);

    // Readiness: made while the two frames wait, readable while one waits, not once VCI_Receive or
    // VCI_ClearBuffer has emptied the queue.
    const int fd = vexlo_receive_fd(0, 1);
    // A notice does not keep it readable for a program that never called vexlo_receive.
    EXPECT_TRUE(Readable(fd, 0) && VCI_Receive(kType, 0, 1, buf, 1, 0) == 1 && Readable(fd, 0));
    Sim().InjectNotice(1, 0xE2);
    EXPECT_TRUE(VCI_Receive(kType, 0, 1, buf, 2, 0) == 1 && !Readable(fd, 100));
    Sim().InjectFrame(1, vs::SimFrame());
    EXPECT_TRUE(Readable(fd, 5000) && VCI_ClearBuffer(kType, 0, 1) && !Readable(fd, 0));

    // The race: the application drains whenever the descriptor is readable while frames keep
    // arriving. A lost readiness leaves frames waiting behind a descriptor that never becomes
    // readable again (no later message signals while older frames wait). At idle priority on the
    // event thread's CPU, the application is preempted by each completion anywhere in its drain.
    std::thread app([&] {
        sched_param idle = {0};
        pthread_setschedparam(pthread_self(), SCHED_IDLE, &idle);
        for (unsigned i = 0; Readable(fd, 1000); ++i)
            i % 4 ? VCI_Receive(kType, 0, 1, buf, 2, 0) : VCI_ClearBuffer(kType, 0, 1);
    });
    for (unsigned r = 0; r < 20000; ++r) {
        Sim().InjectFrame(1, vs::SimFrame());
        if (r % 3 == 0) usleep(r * 7919 % 200);
    }
    app.join();  // a second without readiness
    EXPECT_TRUE(VCI_GetReceiveNum(kType, 0, 1) == 0 || Readable(fd, 0));

    // vexlo_receive: the notices as error frames (class, details), in order among the frames: channel
    // 0's, then channel 1's notice from before the race, a frame, a notice, a frame. Once it has been
    // called, a notice alone makes the descriptor readable.
    Sim().InjectFrame(1, vs::SimFrame());
    Sim().InjectNotice(1, 0xE4, 7);
    Sim().InjectFrame(1, vs::SimFrame());
    VEXLO_FRAME x[70];
    auto Take = [&](unsigned ch, unsigned n) {  // of each: flags, Id, Data[0], [1], [6], [7] as hex digits
        std::vector<unsigned long long> got;
        for (int r; got.size() < n && (r = vexlo_receive(0, ch, x, n - unsigned(got.size()), 2000)) > 0;)
            for (const VEXLO_FRAME& e : std::vector<VEXLO_FRAME>(x, x + r))
                got.push_back(1ull * e.flags << 48 | 1ull * e.frame.Id << 32 | e.frame.Data[0] << 24 |
                              e.frame.Data[1] << 16 | e.frame.Data[6] << 8 | e.frame.Data[7]);
        return got;
    };
    using V = std::vector<unsigned long long>;
    EXPECT_EQ(Take(0, 5), V({0x1'0004'000C'0000, 0x1'0204'0030'3322, 0x1'0002'1100'0000, 0x1'0004'0001'0000,
                             0x1'0088'0000'0000}));
    EXPECT_EQ(Take(1, 4), V({0x1'0004'000C'0000, 0, 0x1'0002'0700'0000, 0}));
    Sim().InjectNotice(1, 0xE5);
    EXPECT_TRUE(Readable(fd, 5000) && vexlo_receive(0, 1, x, 2, 0) == 1 && x[0].flags == 1 && !Readable(fd, 0));

    // Host times of a generator's frames (1 ms apart) keep its spacing within 2 ms, once the clock
    // model has seen a few hundred completions, and none is later than its receipt.
    Sim().SetCabled(false);
    Sim().StartGenerator(1, vs::SimGenConfig{1000, 0, 0, false, false, 0, true, 1000});
    long long seen = 0, ahead = 0, lo = 1LL << 62, hi = -lo;
    for (int r; seen < 1000 && (r = vexlo_receive(0, 1, x, 70, 2000)) > 0;) {
        const auto wall = std::chrono::system_clock::now().time_since_epoch() / std::chrono::microseconds(1);
        for (int i = 0; i < r; ++i, ++seen) {
            const long long t = static_cast<long long>(x[i].host_us);
            const long long drift = t - 1000LL * (x[i].frame.Data[0] | x[i].frame.Data[1] << 8);
            ahead += t > wall;
            if (seen >= 300) lo = std::min(lo, drift), hi = std::max(hi, drift);
        }
    }
    EXPECT_EQ(seen, 1000);
    EXPECT_EQ(ahead, 0);
    EXPECT_LE(hi - lo, 2000);

    // A generator fills channel 0's queue, which nobody reads: every frame is queued or lost.
    Sim().SetRxCapacity(4u << 20);  // the adapter itself drops nothing
    const vs::SimGenConfig gen = {0, 0, 0, false, false, 0, true, 70000};  // 70000 frames, fast as the bus goes
    Sim().StartGenerator(0, gen);
    for (int i = 0; i < 3000 && vexlo_get_stats(0, 0, &a) && a.rx_frames + a.rx_lost < 70000; ++i) usleep(10000);
    EXPECT_TRUE(a.rx_frames == 65536 && a.rx_lost == 70000 - 65536 && a.queue_peak == 65536);
    // The oldest are kept, in order, and reception works on.
    EXPECT_EQ(VCI_GetReceiveNum(kType, 0, 0), 65536u);
    CAN_OBJ many[1000];
    unsigned next = 0, bad = 0;
    for (unsigned got; (got = VCI_Receive(kType, 0, 0, many, 1000, 0)) != 0;)
        for (unsigned i = 0; i < got; ++i) bad += static_cast<unsigned>(many[i].Data[0] | many[i].Data[1] << 8 | many[i].Data[2] << 16) != next++;
    EXPECT_TRUE(next == 65536 && bad == 0 && Sim().RxDropped() == 0) << next << " " << bad;
    // The loss reaches vexlo_receive as an error frame after the frames kept.
    EXPECT_EQ(Take(0, 1), V({0x1'0004'0001'0000}));
    Sim().InjectFrame(0, vs::SimFrame());
    EXPECT_EQ(VCI_Receive(kType, 0, 0, many, 1, 1000), 1u);
}

// A log function that calls back into the library, on lines written while the library holds its
// locks: frame traces of a transmit (the exchange's lock), of the reception (the event thread) and
// of a receive (the queues' lock), a refused transmit's error (the exchange's lock), an unplug's
// lines (the event thread). Each call that needs a device fails at once, whatever thread and lock,
// and leaves the device as it was; a call that needs none works. Nothing hangs.
static std::mutex g_mu;
static std::multiset<std::vector<long>> g_results;  // of the calls, per line
static void CallBack(void*, int, const char*) {
    CAN_INFO info;
    CAN_OBJ obj = {};
    VEXLO_FRAME f;
    unsigned char b[2];
    const std::vector<long> got = {VCI_ReadBoardInfo(kType, 0, &info), VCI_GetReceiveNum(kType, 0, 1),
                                   VCI_Transmit(kType, 0, 0, &obj, 1), vexlo_receive(0, 1, &f, 1, -1),
                                   vexlo_present(0), VCI_CloseDevice(kType, 0), VCI_OpenDevice(kType, 1, 0),
                                   vexlo_count(), vexlo_timing_for_rate(500000, b, b + 1, nullptr, nullptr)};
    std::lock_guard<std::mutex> g(g_mu);
    g_results.insert(got);
}

TEST_F(ExtTest, CallsFromTheLogFunctionFailAtOnceOrWork) {
    OpenAndStart();
    vexlo_set_log(CallBack, nullptr);
    VCI_Debug(0x20);  // a line per frame
    CAN_OBJ obj = {};
    EXPECT_TRUE(VCI_Transmit(kType, 0, 0, &obj, 1) == 1 && VCI_Receive(kType, 0, 1, &obj, 1, 2000) == 1);
    VCI_Debug(0);
    Sim().SetTxAccept(0);
    CAN_INFO info;
    EXPECT_TRUE(VCI_Transmit(kType, 0, 0, &obj, 1) == 0 && VCI_ReadBoardInfo(kType, 0, &info) == 1);  // still open
    Sim().Unplug();
    // Three frame traces, the refusal, and a failed transfer for each reception transfer that was
    // in flight at the unplug (one or both): five lines at least. The unplug's may follow the moment
    // the adapter is seen gone, so they are waited for.
    auto lines = [] {
        std::lock_guard<std::mutex> g(g_mu);
        return g_results.size();
    };
    for (int i = 500; i-- && (vexlo_present(0) != VEXLO_GONE || lines() < 5);) usleep(10000);
    vexlo_set_log(nullptr, nullptr);
    EXPECT_GE(g_results.size(), 5u);
    EXPECT_EQ(g_results.size(), g_results.count({0, 0, 0, -1, -1, 0, 0, -1, 1}));
}
