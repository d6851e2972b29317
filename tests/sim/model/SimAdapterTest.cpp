// The adapter model without USB: answers, transmit buffer, bus, fault confinement, framing.
#include <gtest/gtest.h>

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

TEST(SimAdapterModel, frames_take_bus_time_and_reach_only_the_other_channel) {
    Model m;
    m.Start(0);
    m.Start(1);
    EXPECT_EQ(m.Send(1, 0x10, 3), 3u);
    m.a.Advance(m.now + 2 * 47000);  // two frames done, the third still on the wire
    std::vector<SimRecord> recs = m.Drain();
    ASSERT_EQ(recs.size(), 2u);
    m.a.Advance(m.now + 3 * 47000);
    recs = m.Drain();
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0].Channel(), 0u);
    EXPECT_EQ(recs[0].ToFrame().id, 0x12u);
    EXPECT_FALSE(m.a.Busy());
}

TEST(SimAdapterModel, receiver_hears_only_its_bit_rate_and_filter) {
    Model m;
    m.Start(0);
    m.Start(1);
    m.Cmd({0x12, kCmdFilter, 0x0A, 0x00, 0x50, 0x20, 0x20, 0, 0, 0x00, 0x1F, 0xFF, 0xFF});  // id 0x101 only
    m.Send(0, 0x100, 3);
    m.a.Advance(kMs);
    std::vector<SimRecord> recs = m.Drain();
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0].ToFrame().id, 0x101u);
    m.Start(1, false, 0x00, 0x1C);  // 500 kbit/s against 1 Mbit/s: only error notices
    m.Send(0, 1, 1);
    m.a.Advance(10 * kMs);
    recs = m.Drain();
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
    unsigned warn = 0, passive = 0, frames = 0;
    for (const SimRecord& r : recs) {
        warn += r.event == kEvWarning;
        passive += r.event == kEvPassive;
        frames += r.event == kEvFrame;
    }
    EXPECT_EQ(warn, 1u);
    EXPECT_EQ(passive, 1u);
    EXPECT_EQ(frames, 0u);
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

TEST(SimAdapterModel, generator_rate_is_capped_by_the_bus) {
    Model m;
    m.a.cabled_ = false;
    m.Start(0);
    SimGenConfig cfg;  // as fast as possible, 0-byte standard frames
    m.a.gen_[0].Start(cfg, 0);
    m.a.in_.capacity_ = 100000;
    m.a.Advance(1000 * kMs);
    EXPECT_EQ(m.a.gen_[0].sent_, 21276u);  // whole 47 us frames in 1 s: 21,276.6 per second
}

TEST(SimInStreamFraming, messages_never_end_on_a_packet_boundary) {
    EXPECT_EQ(SimInStream::Frame(std::vector<SimRecord>(3)).size(), 57u);
    // 64 records would be 1216 bytes, a multiple of 64: the trailing byte ends the message.
    Bytes b = SimInStream::Frame(std::vector<SimRecord>(64));
    EXPECT_EQ(b.size(), 1217u);
    EXPECT_EQ(b.size() % 19, 1u);
    for (size_t k = 1; k <= SimInStream::kMaxRecords; ++k)
        EXPECT_NE(SimInStream::Frame(std::vector<SimRecord>(k)).size() % 64, 0u) << k;
}

TEST(SimInStreamFraming, at_most_53_records_per_message_and_raw_items_keep_their_place) {
    SimInStream s;
    for (int i = 0; i < 60; ++i) s.PushRecord(SimRecord());
    s.PushRaw(Bytes(64, 0xEE));
    s.PushRecord(SimRecord());
    Bytes t;
    ASSERT_TRUE(s.Take(1024, &t));
    EXPECT_EQ(t.size(), 53u * 19);
    ASSERT_TRUE(s.Take(1024, &t));
    EXPECT_EQ(t.size(), 7u * 19);
    ASSERT_TRUE(s.Take(1024, &t));
    EXPECT_EQ(t, Bytes(64, 0xEE));
    ASSERT_TRUE(s.Take(1024, &t));
    EXPECT_EQ(t.size(), 19u);
    EXPECT_FALSE(s.Take(1024, &t));
}

TEST(SimInStreamFraming, a_short_host_buffer_gets_whole_packets_then_the_rest) {
    SimInStream s;
    for (int i = 0; i < 10; ++i) s.PushRecord(SimRecord());  // 190 bytes
    Bytes t;
    ASSERT_TRUE(s.Take(100, &t));
    EXPECT_EQ(t.size(), 64u);
    ASSERT_TRUE(s.Take(100, &t));
    EXPECT_EQ(t.size(), 64u);
    ASSERT_TRUE(s.Take(100, &t));
    EXPECT_EQ(t.size(), 62u);
}
