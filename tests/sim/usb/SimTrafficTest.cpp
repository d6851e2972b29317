// Transmit packets, the simulated bus between the two channels, and messages on 0x82.
#include <gtest/gtest.h>

#include "SimUsbTestUtil.h"
#include "usb/SimTestbed.h"

using namespace vexlo_sim;

TEST(SimTraffic, frames_sent_on_one_channel_arrive_on_the_other) {
    SimTestbed bed(1);
    ASSERT_TRUE(bed.Ok());
    SimHost host;
    ASSERT_TRUE(host.Open());
    ASSERT_TRUE(SimStartChannel(host, 0));
    ASSERT_TRUE(SimStartChannel(host, 1));

    Bytes pkt = SimTxPacket(0, 0x120, 3);
    ASSERT_EQ(host.Out(kEpDataOut, pkt), 0);
    Bytes ack;
    ASSERT_EQ(host.In(kEpCmdIn, &ack), 0);
    ASSERT_GE(ack.size(), 3u);
    EXPECT_EQ(ack[2], 3);
    EXPECT_EQ(bed.Adapter(0).Sent(kEpDataOut), std::vector<Bytes>{pkt});

    std::vector<SimRecord> recs = SimReadRecords(host, 3);
    ASSERT_EQ(recs.size(), 3u);
    for (unsigned i = 0; i < 3; ++i) {
        EXPECT_EQ(recs[i].event, kEvFrame);
        EXPECT_EQ(recs[i].Channel(), 1u);
        EXPECT_EQ((recs[i].info >> 4) & 3, 1);
        SimFrame f = recs[i].ToFrame();
        EXPECT_EQ(f.id, 0x120 + i);
        EXPECT_EQ(f.dlc, 2);
        EXPECT_EQ(f.data[1], i * 16 + 1);
        if (i) {
            EXPECT_GE(recs[i].timestamp, recs[i - 1].timestamp);
        }
    }
    EXPECT_EQ(bed.Adapter(0).Channel(0).regs[kRegTxErr], 0);
}

TEST(SimTraffic, time_stamps_rise_in_100_microsecond_units) {
    SimTestbed bed(1);
    ASSERT_TRUE(bed.Ok());
    SimHost host;
    ASSERT_TRUE(host.Open());
    ASSERT_TRUE(SimStartChannel(host, 0, 0x31, 0x1C));  // 10 kbit/s: a 63-bit frame takes 6.3 ms
    ASSERT_TRUE(SimStartChannel(host, 1, 0x31, 0x1C));
    ASSERT_EQ(host.Out(kEpDataOut, SimTxPacket(1, 0x10, 3)), 0);
    Bytes ack;
    ASSERT_EQ(host.In(kEpCmdIn, &ack), 0);
    std::vector<SimRecord> recs = SimReadRecords(host, 3);
    ASSERT_EQ(recs.size(), 3u);
    EXPECT_EQ(recs[0].Channel(), 0u);
    EXPECT_EQ(recs[1].timestamp - recs[0].timestamp, 63u);
    EXPECT_EQ(recs[2].timestamp - recs[1].timestamp, 63u);
}

TEST(SimTraffic, transmit_buffer_accepts_a_burst_only_in_part) {
    SimTestbed bed(1);
    ASSERT_TRUE(bed.Ok());
    SimHost host;
    ASSERT_TRUE(host.Open());
    bed.Adapter(0).SetTxCapacity(0, 4);
    ASSERT_TRUE(SimStartChannel(host, 0, 0x31, 0x1C));  // slow bus, the buffer stays full
    ASSERT_TRUE(SimStartChannel(host, 1, 0x31, 0x1C));
    ASSERT_EQ(host.Out(kEpDataOut, SimTxPacket(0, 1, 3)), 0);
    Bytes ack;
    ASSERT_EQ(host.In(kEpCmdIn, &ack), 0);
    EXPECT_EQ(ack[2], 3);
    ASSERT_EQ(host.Out(kEpDataOut, SimTxPacket(0, 4, 3)), 0);
    ASSERT_EQ(host.In(kEpCmdIn, &ack), 0);
    EXPECT_LE(ack[2], 2);  // at most one slot freed by the first frame on the wire, plus one free
    EXPECT_GE(ack[2], 1);
}

TEST(SimTraffic, message_longer_than_the_host_buffer_continues_at_64_bytes) {
    SimTestbed bed(1);
    ASSERT_TRUE(bed.Ok());
    SimHost host;
    ASSERT_TRUE(host.Open());
    for (uint32_t i = 0; i < 5; ++i) {
        SimFrame f;
        f.id = i;
        bed.Adapter(0).InjectFrame(0, f);
    }
    // Five records: 95 bytes in one message; a 64-byte buffer gets 64, then 31.
    Bytes a, b;
    ASSERT_EQ(host.In(kEpDataIn, &a, 64), 0);
    ASSERT_EQ(host.In(kEpDataIn, &b, 64), 0);
    EXPECT_EQ(a.size(), 64u);
    EXPECT_EQ(b.size(), 31u);
    a.insert(a.end(), b.begin(), b.end());
    for (uint32_t i = 0; i < 5; ++i) EXPECT_EQ(SimRecord::Decode(&a[i * kRecordSize]).ToFrame().id, i);
}

TEST(SimTraffic, generator_delivers_an_incrementing_sequence) {
    SimTestbed bed(1);
    ASSERT_TRUE(bed.Ok());
    SimHost host;
    ASSERT_TRUE(host.Open());
    ASSERT_TRUE(SimStartChannel(host, 1));
    SimGenConfig cfg;
    cfg.rate = 5000;
    cfg.dlc = 4;
    cfg.count = 200;
    bed.Adapter(0).StartGenerator(1, cfg);
    std::vector<SimRecord> recs = SimReadRecords(host, 200, 3000);
    ASSERT_EQ(recs.size(), 200u);
    for (uint32_t i = 0; i < 200; ++i) {
        SimFrame f = recs[i].ToFrame();
        ASSERT_EQ(recs[i].Channel(), 1u);
        ASSERT_EQ(f.id, i);
        ASSERT_EQ(GetLe32(f.data), i);
    }
}
