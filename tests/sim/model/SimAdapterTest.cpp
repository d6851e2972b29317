// The adapter model without USB, where the library's tests cannot steer it: the transmit buffer,
// bit rates, fault confinement, arbitration, overrun.
#include <gtest/gtest.h>

#include <algorithm>

#include "model/SimAdapter.h"
#include "model/SimBitTiming.h"

using namespace vexlo_sim;

namespace {

constexpr uint64_t kMs = 1000000;

struct Model {
    SimAdapter a{0, SimIdentity(), 0};
    uint64_t now = 0;

    Bytes Cmd(Bytes pkt) {
        a.OnCommand(pkt.data(), pkt.size(), now);
        Bytes ack;
        EXPECT_TRUE(a.TakeAck(now, &ack));
        return ack;
    }
    void Start(unsigned ch, bool listen = false, uint8_t t0 = 0x00, uint8_t t1 = 0x14) {
        uint8_t sel = static_cast<uint8_t>(ch << 4);
        Cmd({0x12, kCmdTiming, 0x04, 0x00, static_cast<uint8_t>(sel | (listen ? 0x80 : 0)), t0, t1});
        Cmd({0x12, kCmdFilter, 0x0A, 0x00, sel, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF});
        Cmd({0x12, kCmdStart, 0x02, 0x00, sel});
    }
    unsigned Send(unsigned ch, uint32_t id0, unsigned n) {
        Bytes pkt(n * kRecordSize);
        for (unsigned i = 0; i < n; ++i) {
            SimFrame f;
            f.id = id0 + i;
            SimRecord::FromFrame(f, ch, 0).Encode(pkt.data() + i * kRecordSize);
        }
        a.OnTransmit(pkt.data(), pkt.size(), now);
        Bytes ack;
        EXPECT_TRUE(a.TakeAck(now, &ack));
        return ack[2];
    }
    std::vector<SimRecord> Drain() {
        std::vector<SimRecord> out;
        Bytes t;
        while (a.in_.Take(1024, &t))
            for (size_t off = 0; off + kRecordSize <= t.size(); off += kRecordSize)
                out.push_back(SimRecord::Decode(t.data() + off));
        return out;
    }
};

}  // namespace

TEST(SimAdapterModel, transmit_buffer_bounds_a_burst) {
    Model m;
    m.Start(0);
    m.Start(1);
    m.a.ch_[0].tx_capacity_ = 5;
    EXPECT_EQ(m.Send(0, 1, 3), 3u);
    EXPECT_EQ(m.Send(0, 4, 3), 2u);  // no time passed: only two slots left
    EXPECT_EQ(m.Send(0, 7, 3), 0u);
    m.now += 47000;                   // one 0-byte frame at 1 Mbit/s
    EXPECT_EQ(m.Send(0, 7, 3), 1u);
    EXPECT_EQ(m.Send(2, 1, 1), 0u);   // channel 2 does not exist
}

// (That a receiver hears only what its filter accepts is checked through the library, by the
// python interface's filter test.)
TEST(SimAdapterModel, receiver_at_another_bit_rate_hears_only_errors) {
    Model m;
    m.Start(0);
    m.Start(1, false, 0x00, 0x1C);  // 500 kbit/s against 1 Mbit/s
    m.Send(0, 1, 1);
    m.a.Advance(10 * kMs);
    std::vector<SimRecord> recs = m.Drain();
    ASSERT_FALSE(recs.empty());
    for (const SimRecord& r : recs) EXPECT_NE(r.event, kEvFrame);
}

TEST(SimAdapterModel, unacknowledged_frame_leads_to_error_passive_not_bus_off) {
    Model m;
    m.Start(0);
    m.Start(1, true);  // listen-only: hears but never acknowledges
    m.Send(0, 0x42, 1);
    m.a.Advance(100 * kMs);
    const SimController& c = m.a.ch_[0];
    EXPECT_EQ(c.tec_, 128);
    EXPECT_FALSE(c.bus_off_);
    EXPECT_EQ(c.ReadReg(kRegStatus) & 0xC0, 0x40);
    std::vector<SimRecord> recs = m.Drain();
    auto count = [&](int event) {
        return std::count_if(recs.begin(), recs.end(), [&](const SimRecord& r) { return r.event == event; });
    };
    EXPECT_EQ(count(kEvWarning), 1);
    EXPECT_EQ(count(kEvPassive), 1);
    EXPECT_EQ(count(kEvFrame), 0);
    // The listener hears the sender's active error flag on each of the 16 tries up to error
    // passive, as bus errors of its own, and nothing after.
    EXPECT_EQ(std::count_if(recs.begin(), recs.end(),
                            [](const SimRecord& r) { return r.event == kEvBusError && r.Channel() == 1; }),
              16);
    EXPECT_EQ(m.a.ch_[1].ReadReg(kRegErrCode), SimController::kAckFlagHeardCode);
    EXPECT_EQ(m.a.ch_[1].rec_, 0);
    // Once a receiver acknowledges, the frame goes through and the counter comes down by one.
    m.Start(1, false);
    m.a.Advance(101 * kMs);
    EXPECT_EQ(m.a.ch_[0].tec_, 127);
    recs = m.Drain();
    ASSERT_FALSE(recs.empty());
    EXPECT_EQ(recs.back().event, kEvFrame);
    // Reset clears the counters.
    m.Cmd({0x12, kCmdReset, 0x12, 0x00, 0x00});
    EXPECT_EQ(m.a.ch_[0].tec_, 0);
}

TEST(SimAdapterModel, arbitration_lost_by_the_higher_identifier) {
    Model m;
    m.a.cabled_ = true;
    m.Start(0);
    m.Start(1);
    m.Send(0, 0x200, 1);
    m.Send(1, 0x100, 1);  // same instant: 0x100 wins
    m.a.Advance(kMs);
    std::vector<SimRecord> recs = m.Drain();
    ASSERT_EQ(recs.size(), 3u);
    EXPECT_EQ(recs[0].event, kEvArbLost);
    EXPECT_EQ(recs[0].Channel(), 0u);
    EXPECT_EQ(recs[0].raw[0], 1);  // 0x100 and 0x200 differ in the second identifier bit
    EXPECT_EQ(recs[1].ToFrame().id, 0x100u);
    EXPECT_EQ(recs[2].ToFrame().id, 0x200u);
}

TEST(SimAdapterModel, full_receive_buffer_drops_and_reports_overrun) {
    Model m;
    m.a.in_.capacity_ = 4;
    for (int i = 0; i < 6; ++i) m.a.InjectFrame(0, SimFrame(), 0);
    EXPECT_EQ(m.a.rx_dropped_, 2u);
    std::vector<SimRecord> recs = m.Drain();
    EXPECT_EQ(recs.size(), 4u);
    m.a.Advance(0);
    recs = m.Drain();
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0].event, kEvOverrun);
}
