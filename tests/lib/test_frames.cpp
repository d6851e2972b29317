// The frame path: transmit and receive through the simulated bus, the queues, the receive wait,
// and a short full-load run with zero loss.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>

#include "LibFixture.h"

using FrameTest = LibTest;

static const char* kTxSig = "unsigned int VCI_Transmit(unsigned int, unsigned int, unsigned int, CAN_OBJ*, unsigned int)";

static CAN_OBJ MakeFrame(unsigned i) {
    CAN_OBJ f;
    memset(&f, 0, sizeof(f));
    f.ExtendedFrame = i % 2;
    f.Id = f.ExtendedFrame ? 0x1ABCDE00 + i : 0x700 + i;
    f.RemoteFrame = i == 3;
    f.DataLength = static_cast<unsigned char>(i == 6 ? 15 : i % 9);  // a code above 8 is kept as it is
    for (int b = 0; b < 8; ++b) f.Data[b] = static_cast<unsigned char>(0x10 * i + b);
    return f;
}

static unsigned Seq(const CAN_OBJ& f) {
    return f.Data[0] | f.Data[1] << 8 | f.Data[2] << 16 | static_cast<unsigned>(f.Data[3]) << 24;
}

// Receives `n` frames from a channel within `ms` milliseconds.
static std::vector<CAN_OBJ> ReceiveAll(unsigned ch, size_t n, unsigned ms = 3000) {
    std::vector<CAN_OBJ> out;
    CAN_OBJ buf[100];
    uint64_t end = vs::SimTestbed::Now() + static_cast<uint64_t>(ms) * 1000000;
    while (out.size() < n && vs::SimTestbed::Now() < end) {
        unsigned got = VCI_Receive(kType, 0, ch, buf, 100, 50);
        out.insert(out.end(), buf, buf + got);
    }
    return out;
}

TEST_F(FrameTest, FramesCrossTheBusBothWaysIntact) {
    OpenAndStart();
    CAN_OBJ tx[7];
    for (unsigned i = 0; i < 7; ++i) tx[i] = MakeFrame(i);
    Sim().ClearSent();
    EXPECT_EQ(VCI_Transmit(kType, 0, 0, tx, 7), 7u);
    std::vector<size_t> sizes;
    for (const vs::Bytes& p : Sim().Sent(vs::kEpDataOut)) sizes.push_back(p.size());
    EXPECT_EQ(sizes, std::vector<size_t>({57, 57, 19}));  // slices of 3, 3 and 1
    std::vector<CAN_OBJ> rx = ReceiveAll(1, 7);
    ASSERT_EQ(rx.size(), 7u);
    for (unsigned i = 0; i < 7; ++i) {
        CAN_OBJ want = tx[i];  // every field as sent, all 8 data bytes, with a valid time stamp
        want.TimeStamp = rx[i].TimeStamp;
        want.TimeStampValid = 1;
        EXPECT_EQ(memcmp(&rx[i], &want, sizeof(want)), 0) << i;
        EXPECT_GE(rx[i].TimeStamp, i > 0 ? rx[i - 1].TimeStamp : 0u);
    }
    EXPECT_EQ(VCI_GetReceiveNum(kType, 0, 0), 0u);  // a sender does not hear itself

    // And back, traced: the transmit call and the reception path print each frame.
    VCI_Debug(0x20);
    Capture();
    EXPECT_EQ(VCI_Transmit(kType, 0, 1, &tx[1], 1), 1u);
    rx = ReceiveAll(0, 1);
    std::string log = Log();
    VCI_Debug(0);
    ASSERT_EQ(rx.size(), 1u);
    EXPECT_EQ(rx[0].Id, tx[1].Id);
    EXPECT_EQ(rx[0].ExtendedFrame, 1);
    EXPECT_EQ(CountLines(log, LogLine("DBG", kTxSig,
                                      "CAN_1: ID=0x1abcde01, TS=0x00000000, TSE=0, TXM=0, RTR=0, EXT=1, LEN=1, "
                                      "DAT=10 11 12 13 14 15 16 17 ")),
              1)
        << log;
    EXPECT_EQ(CountLines(log, std::regex(".*: vexlo: DBG: void CanDev::Recv\\(CanXfer\\*\\)<[0-9]+>: CAN_0: "
                                         "ID=0x1abcde01, TS=0x[0-9a-f]{8}, TSE=1, TXM=0, RTR=0, EXT=1, LEN=1, "
                                         "DAT=10 11 12 13 14 15 16 17 ")),
              1)
        << log;
}

TEST_F(FrameTest, ReceiveWaitRule) {
    OpenAndStart();
    CAN_OBJ buf[4];
    uint64_t t0 = vs::SimTestbed::Now();
    EXPECT_EQ(VCI_Receive(kType, 0, 1, buf, 4, 100), 0u);
    uint64_t ms = (vs::SimTestbed::Now() - t0) / 1000000;
    EXPECT_GE(ms, 100u);
    EXPECT_LT(ms, 400u);
    t0 = vs::SimTestbed::Now();
    EXPECT_EQ(VCI_Receive(kType, 0, 1, buf, 4, 0), 0u);  // one look, one pause
    EXPECT_LT((vs::SimTestbed::Now() - t0) / 1000000, 200u);

    // A frame that arrives during a long wait ends it soon after.
    std::atomic<uint64_t> sent_at(0);
    std::thread later([&] {
        usleep(40000);
        vs::SimFrame f;
        f.id = 0x55;
        sent_at = vs::SimTestbed::Now();
        Sim().InjectFrame(1, f);
    });
    EXPECT_EQ(VCI_Receive(kType, 0, 1, buf, 4, 5000), 1u);
    uint64_t got_at = vs::SimTestbed::Now();
    later.join();
    EXPECT_EQ(buf[0].Id, 0x55u);
    EXPECT_LT((got_at - sent_at) / 1000000, 500u);
}

// Two threads read one channel: each gets its frames in queue order, together all of them once.
TEST_F(FrameTest, TwoReadersShareFramesInQueueOrder) {
    OpenAndStart();
    const unsigned total = 4000;
    vs::SimGenConfig gen;
    gen.count = total;
    gen.dlc = 8;
    Sim().StartGenerator(1, gen);
    std::vector<unsigned> seen[2];
    std::atomic<unsigned> count(0);
    // Both read until all frames are in; frames still held in the adapter or in flight keep them
    // reading. The deadline only ends a run that lost frames.
    const uint64_t deadline = vs::SimTestbed::Now() + 40000000000ull;
    auto reader = [&](int r) {
        CAN_OBJ buf[7];
        while (count < total && vs::SimTestbed::Now() < deadline) {
            unsigned got = VCI_Receive(kType, 0, 1, buf, 7, 20);
            for (unsigned i = 0; i < got; ++i) seen[r].push_back(Seq(buf[i]));
            count += got;
        }
    };
    std::thread a(reader, 0), b(reader, 1);
    a.join();
    b.join();
    for (auto& s : seen) EXPECT_TRUE(std::is_sorted(s.begin(), s.end()));
    std::vector<unsigned> all(seen[0]);
    all.insert(all.end(), seen[1].begin(), seen[1].end());
    std::sort(all.begin(), all.end());
    ASSERT_EQ(all.size(), total);
    for (unsigned i = 0; i < total; ++i) ASSERT_EQ(all[i], i);
}

// The full-load cases measure the library, not the emulation: the simulated adapter's receive
// buffer is made deep enough that a stall of the emulated USB path on a loaded machine costs no
// records there; every frame the generator sends still has to come through the library.
static const size_t kDeepRxBuffer = 4u << 20;

// Both channels at the bus ceiling for a few seconds while the application drains them: nothing
// lost, duplicated or reordered. (The benchmark runs the same for a minute and measures CPU.)
TEST_F(FrameTest, FullLoadOnBothChannelsLosesNothing) {
    OpenAndStart();
    Sim().SetCabled(false);  // each channel its own bus, each at its ceiling
    Sim().SetRxCapacity(kDeepRxBuffer);
    vs::SimGenConfig gen;
    gen.rate = 21277;
    for (unsigned ch = 0; ch < 2; ++ch) Sim().StartGenerator(ch, gen);
    unsigned next[2] = {0, 0}, bad[2] = {0, 0};
    CAN_OBJ buf[1000];
    auto drain = [&](unsigned ch) {
        unsigned got = VCI_Receive(kType, 0, ch, buf, 1000, 0);
        for (unsigned i = 0; i < got; ++i) {
            bad[ch] += Seq(buf[i]) != next[ch];
            next[ch] = Seq(buf[i]) + 1;
        }
        return got;
    };
    uint64_t end = vs::SimTestbed::Now() + 3000000000ull;
    while (vs::SimTestbed::Now() < end) {
        usleep(5000);  // an application that polls, rather than spins
        for (unsigned ch = 0; ch < 2; ++ch) drain(ch);
    }
    for (unsigned ch = 0; ch < 2; ++ch) Sim().StopGenerator(ch);
    for (int i = 0; i < 3000 && Sim().RxPending() != 0; ++i) usleep(10000);
    usleep(50000);
    for (unsigned ch = 0; ch < 2; ++ch) {
        for (unsigned got = 1; got != 0;) got = drain(ch);
        EXPECT_EQ(bad[ch], 0u) << "channel " << ch;
        EXPECT_EQ(next[ch], Sim().GeneratorSent(ch)) << "channel " << ch;
        EXPECT_GT(next[ch], 3u * 21277u * 8 / 10) << "channel " << ch;
    }
    EXPECT_EQ(Sim().RxDropped(), 0u);
}
