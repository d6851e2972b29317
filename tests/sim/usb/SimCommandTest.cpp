// Every command of the command table answered as the adapter does, through plain libusb.
#include <gtest/gtest.h>

#include "SimUsbTestUtil.h"
#include "usb/SimTestbed.h"

using namespace vexlo_sim;

namespace {

bool Accepted(const Bytes& ack, uint8_t code) { return ack.size() >= 3 && ack[1] == code && (ack[2] & 0x80); }

std::string Text(const Bytes& ack) {
    size_t n = (ack[2] & 0x0F) - 1;
    return std::string(ack.begin() + 4, ack.begin() + 4 + static_cast<long>(n));
}

}  // namespace

TEST(SimCommands, identity_queries_answer_versions_count_and_texts) {
    SimIdentity id;
    id.hw_version = 0x0321;
    id.fw_version = 0x0456;
    id.serial = "SN-12345678";
    id.id_text = "fourteen chars+more";
    SimTestbed bed(1, {id});
    ASSERT_TRUE(bed.Ok());
    SimHost host;
    ASSERT_TRUE(host.Open());

    Bytes hw = host.Cmd(SimCmd(kCmdHwVersion));
    ASSERT_TRUE(Accepted(hw, kCmdHwVersion));
    EXPECT_EQ(hw[4], 0x21);
    EXPECT_EQ(hw[5], 0x03);
    Bytes fw = host.Cmd(SimCmd(kCmdFwVersion));
    ASSERT_TRUE(Accepted(fw, kCmdFwVersion));
    EXPECT_EQ(fw[4], 0x56);
    EXPECT_EQ(fw[5], 0x04);
    Bytes chn = host.Cmd(SimCmd(kCmdChannelCount));
    ASSERT_TRUE(Accepted(chn, kCmdChannelCount));
    EXPECT_EQ(chn[4], 2);

    Bytes sn = host.Cmd(SimCmd(kCmdSerial));
    ASSERT_TRUE(Accepted(sn, kCmdSerial));
    EXPECT_EQ(sn[2], 0x80 | 12);  // 11 characters + 1
    EXPECT_EQ(Text(sn), "SN-12345678");
    Bytes idt = host.Cmd(SimCmd(kCmdIdText));
    ASSERT_TRUE(Accepted(idt, kCmdIdText));
    EXPECT_EQ(idt[2], 0x8F);  // cut to 14 characters
    EXPECT_EQ(Text(idt), "fourteen chars");
}

TEST(SimCommands, configuration_and_start_reach_the_channel) {
    SimTestbed bed(1);
    ASSERT_TRUE(bed.Ok());
    SimHost host;
    ASSERT_TRUE(host.Open());
    SimDevice& dev = bed.Adapter(0);

    // Start before any configuration is refused.
    Bytes early = host.Cmd({0x12, kCmdStart, 0x02, 0x00, 0x10});
    ASSERT_GE(early.size(), 3u);
    EXPECT_EQ(early[1], kCmdStart);
    EXPECT_EQ(early[2] & 0x80, 0);

    EXPECT_TRUE(Accepted(host.Cmd({0x12, kCmdTiming, 0x04, 0x00, 0x90, 0x01, 0x1C}), kCmdTiming));
    EXPECT_TRUE(Accepted(host.Cmd({0x12, kCmdFilter, 0x0A, 0x00, 0x50, 0x80, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}),
                         kCmdFilter));
    SimChannelInfo c1 = dev.Channel(1);
    EXPECT_EQ(c1.state, SimChanState::kInitialised);
    EXPECT_EQ(c1.bitrate, 250000u);
    EXPECT_TRUE(c1.listen_only);
    EXPECT_EQ(c1.accept_code, 0x80000000u);
    EXPECT_EQ(c1.accept_mask, 0xFFFFFFFFu);
    EXPECT_TRUE(c1.single_filter);
    EXPECT_EQ(c1.regs[kRegMode], 0x0B);  // reset mode, listen-only, single filter
    EXPECT_EQ(dev.Channel(0).state, SimChanState::kReset);

    EXPECT_TRUE(Accepted(host.Cmd({0x12, kCmdStart, 0x02, 0x00, 0x10}), kCmdStart));
    EXPECT_EQ(dev.Channel(1).state, SimChanState::kStarted);
    EXPECT_EQ(dev.Channel(1).regs[kRegMode], 0x0A);
    EXPECT_TRUE(Accepted(host.Cmd({0x12, kCmdReset, 0x12, 0x00, 0x10}), kCmdReset));
    EXPECT_EQ(dev.Channel(1).state, SimChanState::kInitialised);
}

TEST(SimCommands, registers_read_write_and_status_counters) {
    SimTestbed bed(1);
    ASSERT_TRUE(bed.Ok());
    SimHost host;
    ASSERT_TRUE(host.Open());

    Bytes ewl = host.Cmd({0x12, kCmdRegRead, 0x03, 0x00, 0x00, kRegWarnLimit});
    ASSERT_TRUE(Accepted(ewl, kCmdRegRead));
    EXPECT_EQ(ewl[4], 96);
    EXPECT_TRUE(Accepted(host.Cmd({0x12, kCmdRegWrite, 0x04, 0x00, 0x00, kRegWarnLimit, 0x60 + 4}), kCmdRegWrite));
    EXPECT_EQ(host.Cmd({0x12, kCmdRegRead, 0x03, 0x00, 0x00, kRegWarnLimit})[4], 100);
    EXPECT_EQ(host.Cmd({0x12, kCmdRegRead, 0x03, 0x00, 0x10, kRegWarnLimit})[4], 96);  // channel 1 untouched
    EXPECT_EQ(host.Cmd({0x12, kCmdRegRead, 0x03, 0x00, 0x10, kRegStatus})[4], 0x3C);   // reset mode

    ASSERT_TRUE(SimStartChannel(host, 0));
    ASSERT_TRUE(SimStartChannel(host, 1));
    EXPECT_EQ(host.Cmd({0x12, kCmdRegRead, 0x03, 0x00, 0x10, kRegStatus})[4], 0x0C);  // idle, buffer free
    ASSERT_EQ(host.Out(kEpDataOut, SimTxPacket(0, 0x100, 3, 8)), 0);
    Bytes txack;
    ASSERT_EQ(host.In(kEpCmdIn, &txack), 0);
    usleep(20000);
    Bytes st = host.Cmd({0x12, kCmdStatusCounters, 0x02, 0x00, 0x00});
    ASSERT_TRUE(Accepted(st, kCmdStatusCounters));
    ASSERT_EQ(st.size(), 13u);
    uint32_t busy = GetLe32(&st[5]), idle = GetLe32(&st[9]);
    EXPECT_EQ(busy, 3u);  // three 111-bit frames at 1 Mbit/s: 333 us, counted in 100 us
    EXPECT_GT(idle, 100u);
}

TEST(SimCommands, unknown_code_and_bad_channel_are_refused) {
    SimTestbed bed(1);
    ASSERT_TRUE(bed.Ok());
    SimHost host;
    ASSERT_TRUE(host.Open());
    Bytes unknown = host.Cmd(SimCmd(0x7A));
    ASSERT_GE(unknown.size(), 3u);
    EXPECT_EQ(unknown[1], 0x7A);
    EXPECT_EQ(unknown[2] & 0x80, 0);
    Bytes bad = host.Cmd({0x12, kCmdStart, 0x02, 0x00, 0x20});
    ASSERT_GE(bad.size(), 3u);
    EXPECT_EQ(bad[2] & 0x80, 0);
}
