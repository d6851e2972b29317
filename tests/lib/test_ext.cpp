// The extension calls through the simulated adapter: the receive readiness descriptor against the
// queue (also under a racing drain), the counters against the traffic, bad arguments.
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <functional>
#include <random>
#include <thread>

#include "LibFixture.h"
#include "vexlo_ext.h"

using ExtTest = LibTest;

static bool Readable(int fd, int ms) {
    pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, ms) == 1 && (p.revents & POLLIN);
}

static bool WaitFor(const std::function<bool()>& cond, unsigned ms = 5000) {
    for (unsigned i = 0; i < ms / 5 && !cond(); ++i) usleep(5000);
    return cond();
}

static VEXLO_STATS Stats(unsigned ch) {
    VEXLO_STATS s;
    memset(&s, 0xEE, sizeof(s));
    s.size = sizeof(s);
    EXPECT_EQ(vexlo_get_stats(0, ch, &s), 1u);
    return s;
}

TEST_F(ExtTest, DescriptorIsReadableExactlyWhileFramesWait) {
    OpenAndStart();
    const int fd = vexlo_receive_fd(0, 1);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(vexlo_receive_fd(0, 1), fd);
    const int other = vexlo_receive_fd(0, 0);
    EXPECT_FALSE(Readable(fd, 100));  // idle
    vs::SimFrame f;
    Sim().InjectFrame(1, f);
    ASSERT_TRUE(Readable(fd, 5000));
    EXPECT_EQ(VCI_GetReceiveNum(kType, 0, 1), 1u);  // signalled by the completion that queued it
    EXPECT_FALSE(Readable(other, 0));
    Sim().InjectFrame(1, f);
    Sim().InjectFrame(1, f);
    ASSERT_TRUE(WaitFor([] { return VCI_GetReceiveNum(kType, 0, 1) == 3; }));
    CAN_OBJ buf[4];
    EXPECT_EQ(VCI_Receive(kType, 0, 1, buf, 2, 0), 2u);
    EXPECT_TRUE(Readable(fd, 0));  // one still waits
    EXPECT_EQ(VCI_Receive(kType, 0, 1, buf, 4, 0), 1u);
    EXPECT_FALSE(Readable(fd, 0));
    Sim().InjectFrame(1, f);
    ASSERT_TRUE(Readable(fd, 5000));
    EXPECT_EQ(VCI_ClearBuffer(kType, 0, 1), 1u);
    EXPECT_FALSE(Readable(fd, 0));
    // A descriptor made while frames wait starts readable.
    Sim().InjectFrame(0, f);
    ASSERT_TRUE(WaitFor([] { return VCI_GetReceiveNum(kType, 0, 0) == 1; }));
    EXPECT_TRUE(Readable(other, 0));
}

// The application drains with VCI_Receive or VCI_ClearBuffer whenever the descriptor is readable
// while frames keep arriving. A readiness lost in the race would leave a frame waiting behind a
// descriptor that never becomes readable again: no later message signals while older frames wait.
// Both share one CPU and the application runs at idle priority, so that each wake-up of the event
// thread preempts it at any point of its drain, between its look at the queue and its reset of
// the descriptor included.
TEST_F(ExtTest, FrameArrivingWhileTheApplicationDrainsIsNeverMissed) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu(), &one);
    ASSERT_EQ(sched_setaffinity(0, sizeof(one), &one), 0);
    OpenAndStart();
    const int fd = vexlo_receive_fd(0, 1);
    ASSERT_GE(fd, 0);
    std::atomic<bool> done(false);
    unsigned received = 0, clears = 0;
    std::thread app([&] {
        sched_param idle = {0};
        pthread_setschedparam(pthread_self(), SCHED_IDLE, &idle);
        std::minstd_rand rnd(7);
        CAN_OBJ buf[2];
        while (!done || Readable(fd, 0)) {
            if (!Readable(fd, 200)) continue;
            if (rnd() % 4 == 0) {
                clears += VCI_ClearBuffer(kType, 0, 1);
            } else {
                received += VCI_Receive(kType, 0, 1, buf, 2, 0);
            }
        }
    });
    std::minstd_rand rnd(11);
    vs::SimFrame f;
    for (unsigned round = 0; round < 8000; ++round) {
        for (unsigned n = rnd() % 3; n < 3; ++n) Sim().InjectFrame(1, f);
        usleep(rnd() % 100);
    }
    ASSERT_TRUE(WaitFor([&] { return Sim().RxPending() == 0; }));
    usleep(300000);
    done = true;
    app.join();
    EXPECT_GT(received, 0u);
    EXPECT_GT(clears, 0u);
    if (VCI_GetReceiveNum(kType, 0, 1) != 0) {
        EXPECT_TRUE(Readable(fd, 0)) << VCI_GetReceiveNum(kType, 0, 1) << " frames wait unseen";
    }
}

TEST_F(ExtTest, BadArgumentsAndClosedDeviceAreRefused) {
    EXPECT_STREQ(vexlo_version(), VEXLO_VERSION);
    OpenAndStart();
    const std::string fdSig = "ERR int vexlo_receive_fd(unsigned int, unsigned int): ";
    const std::string stSig = "ERR unsigned int vexlo_get_stats(unsigned int, unsigned int, VEXLO_STATS*): ";
    struct Row {
        unsigned dev, ch;
        unsigned size;  // 0: a null record
        const char* line;
    };
    const Row rows[] = {
        {32, 0, sizeof(VEXLO_STATS), "invalid parameters"},
        {0, 2, sizeof(VEXLO_STATS), "invalid parameters"},
        {1, 0, sizeof(VEXLO_STATS), "device not opened"},
        {0, 0, 0, "invalid parameters"},
        {0, 0, 4, "invalid parameters"},  // room for no counter
    };
    for (const Row& r : rows) {
        VEXLO_STATS s;
        s.size = r.size;
        Capture();
        EXPECT_EQ(vexlo_get_stats(r.dev, r.ch, r.size ? &s : nullptr), 0u);
        std::vector<std::string> want = {stSig + r.line};
        if (r.size == sizeof(VEXLO_STATS)) {
            EXPECT_EQ(vexlo_receive_fd(r.dev, r.ch), -1);
            want.push_back(fdSig + r.line);
        }
        EXPECT_EQ(Problems(Log()), want) << r.dev << " " << r.ch << " " << r.size;
    }
    ASSERT_GE(vexlo_receive_fd(0, 0), 0);
    ASSERT_EQ(VCI_CloseDevice(kType, 0), 1u);
    VEXLO_STATS s;
    s.size = sizeof(s);
    Capture();
    EXPECT_EQ(vexlo_receive_fd(0, 0), -1);
    EXPECT_EQ(vexlo_get_stats(0, 0, &s), 0u);
    EXPECT_EQ(Problems(Log()), (std::vector<std::string>{fdSig + "device not opened", stSig + "device not opened"}));
}

TEST_F(ExtTest, CountersMatchTheTraffic) {
    OpenAndStart();
    CAN_OBJ tx[7];
    memset(tx, 0, sizeof(tx));
    EXPECT_EQ(VCI_Transmit(kType, 0, 0, tx, 7), 7u);
    Sim().SetTxAccept(2);
    EXPECT_EQ(VCI_Transmit(kType, 0, 0, tx, 7), 2u);  // the adapter takes 2 of the first slice
    Sim().SetTxAccept(-1);
    Sim().InjectNotice(0, 0xE3);
    Sim().InjectNotice(1, 0xE4);
    Sim().InjectNotice(1, 0xEF);  // counts as code 1
    Sim().InjectNotice(1, 0xE5);
    Sim().InjectNotice(1, 0xE6);  // unknown: not a notice
    Sim().InjectRaw(vs::Bytes(21, 0));                                // bad length
    for (int i = 0; i < 16; ++i) Sim().InjectRaw(vs::Bytes(64, 0));  // past the cache
    vs::Bytes bad(19, 0);
    bad[6] = 0x20;  // channel 2
    Sim().InjectRaw(bad);
    Sim().InjectFrame(1, vs::SimFrame());  // handled after all of the above
    ASSERT_TRUE(WaitFor([] { return Stats(1).rx_frames == 10; }));
    CAN_OBJ rx[16];
    EXPECT_EQ(VCI_Receive(kType, 0, 1, rx, 16, 0), 10u);
    const VEXLO_STATS s0 = Stats(0), s1 = Stats(1);
    EXPECT_EQ(s0.tx_frames, 9u);
    EXPECT_EQ(s1.tx_frames, 0u);
    EXPECT_EQ(s0.rx_frames, 0u);
    EXPECT_EQ(s1.queue_peak, 10u);
    EXPECT_EQ(s0.queue_peak, 0u);
    EXPECT_EQ(s1.rx_lost, 0u);
    EXPECT_EQ(s0.bad_messages, 3u);
    EXPECT_EQ(s1.bad_messages, 3u);
    const unsigned long long n0[5] = {0, 0, 1, 0, 0}, n1[5] = {1, 0, 0, 1, 1};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(s0.notices[i], n0[i]) << i;
        EXPECT_EQ(s1.notices[i], n1[i]) << i;
    }
    // An older caller's record: only the fields it holds are written.
    VEXLO_STATS old;
    memset(&old, 0xEE, sizeof(old));
    old.size = offsetof(VEXLO_STATS, rx_lost);
    ASSERT_EQ(vexlo_get_stats(0, 1, &old), 1u);
    EXPECT_EQ(old.size, offsetof(VEXLO_STATS, rx_lost));
    EXPECT_EQ(old.rx_frames, 10u);
    EXPECT_EQ(old.rx_lost, 0xEEEEEEEEEEEEEEEEull);
}

// A generator fills a queue nobody reads: every frame is either queued or counted lost.
TEST_F(ExtTest, LossOfAFullQueueIsCounted) {
    OpenAndStart();
    Sim().SetCabled(false);
    Sim().SetRxCapacity(4u << 20);  // the adapter itself drops nothing
    const unsigned total = 70000;
    vs::SimGenConfig gen;
    gen.count = total;
    Sim().StartGenerator(1, gen);
    ASSERT_TRUE(WaitFor([&] { return Sim().GeneratorSent(1) == total && Sim().RxPending() == 0; }, 30000));
    ASSERT_TRUE(WaitFor([] { return Stats(1).rx_frames + Stats(1).rx_lost == total; }));
    EXPECT_EQ(Sim().RxDropped(), 0u);
    const VEXLO_STATS s = Stats(1);
    EXPECT_EQ(s.rx_frames, 65536u);
    EXPECT_EQ(s.rx_lost, total - 65536u);
    EXPECT_EQ(s.queue_peak, 65536u);
    EXPECT_EQ(Stats(0).rx_lost, 0u);
}
