// Each scripted fault produces exactly its effect, seen through plain libusb.
#include <gtest/gtest.h>

#include <chrono>

#include "SimUsbTestUtil.h"
#include "usb/SimTestbed.h"

using namespace vexlo_sim;

namespace {

struct Fixture {
    SimTestbed bed{1};
    SimHost host;
    SimDevice& dev() { return bed.Adapter(0); }
};

unsigned ElapsedMs(std::chrono::steady_clock::time_point t0) {
    return static_cast<unsigned>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::steady_clock::now() - t0)
                                     .count());
}

}  // namespace

TEST(SimFaults, acknowledgement_faults_spoil_exactly_their_answers) {
    Fixture fx;
    ASSERT_TRUE(fx.bed.Ok());
    ASSERT_TRUE(fx.host.Open());
    const Bytes hw = SimCmd(kCmdHwVersion);

    fx.dev().SetAckFault(SimAckFault::kWrongCode, kCmdHwVersion, 1);
    Bytes a = fx.host.Cmd(hw);
    ASSERT_GE(a.size(), 3u);
    EXPECT_NE(a[1], kCmdHwVersion);
    EXPECT_EQ(a[2] & 0x80, 0x80);
    EXPECT_EQ(fx.host.Cmd(hw)[1], kCmdHwVersion);  // count 1: the next answer is good again

    fx.dev().SetAckFault(SimAckFault::kNoAcceptBit, kCmdHwVersion);
    EXPECT_EQ(fx.host.Cmd(hw)[2] & 0x80, 0);
    EXPECT_EQ(fx.host.Cmd(SimCmd(kCmdFwVersion))[2] & 0x80, 0x80);  // other codes untouched

    fx.dev().SetAckFault(SimAckFault::kShort);
    EXPECT_EQ(fx.host.Cmd(hw).size(), 2u);

    fx.dev().SetAckFault(SimAckFault::kZeroLength);
    Bytes zlp;
    ASSERT_EQ(fx.host.Out(kEpCmdOut, hw), 0);
    EXPECT_EQ(fx.host.In(kEpCmdIn, &zlp), 0);
    EXPECT_TRUE(zlp.empty());

    fx.dev().SetAckFault(SimAckFault::kNoAck);
    ASSERT_EQ(fx.host.Out(kEpCmdOut, hw), 0);
    EXPECT_EQ(fx.host.In(kEpCmdIn, &zlp, 64, 200), LIBUSB_ERROR_TIMEOUT);

    fx.dev().ClearFaults();
    EXPECT_EQ(fx.host.Cmd(hw).size(), 6u);
}

TEST(SimFaults, transmit_acceptance_can_be_partial_or_zero) {
    Fixture fx;
    ASSERT_TRUE(fx.bed.Ok());
    ASSERT_TRUE(fx.host.Open());
    ASSERT_TRUE(SimStartChannel(fx.host, 0));
    ASSERT_TRUE(SimStartChannel(fx.host, 1));
    Bytes ack;
    fx.dev().SetTxAccept(1);
    ASSERT_EQ(fx.host.Out(kEpDataOut, SimTxPacket(0, 0x20, 3)), 0);
    ASSERT_EQ(fx.host.In(kEpCmdIn, &ack), 0);
    EXPECT_EQ(ack[2], 1);
    fx.dev().SetTxAccept(0);
    ASSERT_EQ(fx.host.Out(kEpDataOut, SimTxPacket(0, 0x30, 3)), 0);
    ASSERT_EQ(fx.host.In(kEpCmdIn, &ack), 0);
    EXPECT_EQ(ack[2], 0);
    // Only the accepted frame went on the bus.
    std::vector<SimRecord> recs = SimReadRecords(fx.host, 2, 300);
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0].ToFrame().id, 0x20u);
}

TEST(SimFaults, out_transfer_that_never_completes_times_out) {
    Fixture fx;
    ASSERT_TRUE(fx.bed.Ok());
    ASSERT_TRUE(fx.host.Open());
    fx.dev().SetOutFault(kEpCmdOut, SimOutFault::kNever);
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(fx.host.Out(kEpCmdOut, SimCmd(kCmdHwVersion), 300), LIBUSB_ERROR_TIMEOUT);
    EXPECT_GE(ElapsedMs(t0), 290u);
    EXPECT_EQ(fx.dev().Sent(kEpCmdOut).size(), 0u);
    EXPECT_EQ(fx.dev().OutAttempts(kEpCmdOut), 1u);
    fx.dev().ClearFaults();
    EXPECT_EQ(fx.host.Cmd(SimCmd(kCmdHwVersion)).size(), 6u);
}

TEST(SimFaults, stalled_out_transfer_recovers_after_clear_halt) {
    Fixture fx;
    ASSERT_TRUE(fx.bed.Ok());
    ASSERT_TRUE(fx.host.Open());
    fx.dev().SetOutFault(kEpDataOut, SimOutFault::kStall);
    EXPECT_EQ(fx.host.Out(kEpDataOut, SimTxPacket(0, 1, 1)), LIBUSB_ERROR_PIPE);
    fx.dev().ClearFaults();
    EXPECT_EQ(libusb_clear_halt(fx.host.handle(), kEpDataOut), 0);
    EXPECT_EQ(fx.host.Out(kEpDataOut, SimTxPacket(0, 1, 1)), 0);
    EXPECT_EQ(fx.dev().Sent(kEpDataOut).size(), 1u);
}

TEST(SimFaults, delayed_answer_comes_late) {
    Fixture fx;
    ASSERT_TRUE(fx.bed.Ok());
    ASSERT_TRUE(fx.host.Open());
    fx.dev().SetDelay(150);
    auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(fx.host.Out(kEpCmdOut, SimCmd(kCmdHwVersion)), 0);
    Bytes ack;
    EXPECT_EQ(fx.host.In(kEpCmdIn, &ack, 64, 100), LIBUSB_ERROR_TIMEOUT);
    EXPECT_EQ(fx.host.In(kEpCmdIn, &ack, 64, 1000), 0);
    EXPECT_GE(ElapsedMs(t0), 145u);
    EXPECT_EQ(ack[1], kCmdHwVersion);
}

TEST(SimFaults, raw_transfers_arrive_with_exactly_their_sizes) {
    Fixture fx;
    ASSERT_TRUE(fx.bed.Ok());
    ASSERT_TRUE(fx.host.Open());
    const size_t sizes[] = {21, 0, 64, 64, 12};
    for (size_t n : sizes) fx.dev().InjectRaw(Bytes(n, static_cast<uint8_t>(n)));
    for (size_t n : sizes) {
        Bytes got;
        ASSERT_EQ(fx.host.In(kEpDataIn, &got, 1024), 0);
        EXPECT_EQ(got, Bytes(n, static_cast<uint8_t>(n)));
    }
}

TEST(SimFaults, injected_notices_and_invalid_channels_are_encoded_as_given) {
    Fixture fx;
    ASSERT_TRUE(fx.bed.Ok());
    ASSERT_TRUE(fx.host.Open());
    fx.dev().InjectNotice(1, kEvPassive, 0x11, 0x22, 0x33);
    SimFrame f;
    f.id = 0x7FF;
    fx.dev().InjectFrame(2, f);
    fx.dev().InjectNotice(0, 0xE6);
    std::vector<SimRecord> recs = SimReadRecords(fx.host, 3);
    ASSERT_EQ(recs.size(), 3u);
    EXPECT_EQ(recs[0].event, kEvPassive);
    EXPECT_EQ(recs[0].Channel(), 1u);
    EXPECT_EQ(recs[0].raw[0], 0x11);
    EXPECT_EQ(recs[0].raw[1], 0x22);
    EXPECT_EQ(recs[0].raw[2], 0x33);
    EXPECT_EQ(recs[1].Channel(), 2u);
    EXPECT_EQ(recs[2].event, 0xE6);
}

TEST(SimFaults, lone_transmitter_goes_error_passive_with_notices) {
    Fixture fx;
    ASSERT_TRUE(fx.bed.Ok());
    ASSERT_TRUE(fx.host.Open());
    ASSERT_TRUE(SimStartChannel(fx.host, 0));
    ASSERT_TRUE(SimStartChannel(fx.host, 1, 0x00, 0x14, true));  // listen-only: no acknowledgement
    ASSERT_EQ(fx.host.Out(kEpDataOut, SimTxPacket(0, 0x55, 1)), 0);
    Bytes ack;
    ASSERT_EQ(fx.host.In(kEpCmdIn, &ack), 0);
    EXPECT_EQ(ack[2], 1);
    // 16 bus errors take the counter from 0 to 128; the warning comes at 96, passive at 128.
    std::vector<SimRecord> recs = SimReadRecords(fx.host, 18);
    ASSERT_EQ(recs.size(), 18u);
    unsigned bus_errors = 0;
    for (const SimRecord& r : recs) {
        EXPECT_EQ(r.Channel(), 0u);
        bus_errors += r.event == kEvBusError;
    }
    EXPECT_EQ(bus_errors, 16u);
    EXPECT_EQ(recs[12].event, kEvWarning);  // after the 12th error: 96
    EXPECT_EQ(recs[17].event, kEvPassive);
    EXPECT_EQ(recs[17].raw[0], SimController::kAckErrorCode);
    EXPECT_EQ(recs[17].raw[2], 128);
    SimChannelInfo c0 = fx.dev().Channel(0);
    EXPECT_EQ(c0.regs[kRegTxErr], 128);
    EXPECT_EQ(c0.regs[kRegStatus] & 0xC0, 0x40);  // error status, not bus-off
    EXPECT_EQ(c0.regs[kRegErrCode], 0xD9);
    EXPECT_EQ(c0.tx_queued, 1u);                   // still retrying
}
