// Every fault the simulated adapter can inject, seen through plain libusb: each row injects one,
// checks exactly its effect, and after the faults are cleared the adapter answers normally again.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>

#include "SimUsbTestUtil.h"
#include "usb/SimTestbed.h"

using namespace vexlo_sim;

namespace {

unsigned MsSince(std::chrono::steady_clock::time_point t0) {
    return static_cast<unsigned>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count());
}

struct FaultRow {
    const char* fault;
    std::function<void(SimHost&, SimDevice&)> run;
};

}  // namespace

TEST(SimFaults, each_fault_has_exactly_its_effect) {
    SimTestbed bed(1);
    ASSERT_TRUE(bed.Ok());
    SimHost host;
    ASSERT_TRUE(host.Open());
    const Bytes hw = SimCmd(kCmdHwVersion);
    const FaultRow rows[] = {
        {"wrong code, once", [&](SimHost& h, SimDevice& d) {
             d.SetAckFault(SimAckFault::kWrongCode, kCmdHwVersion, 1);
             Bytes a = h.Cmd(hw);
             ASSERT_GE(a.size(), 3u);
             EXPECT_NE(a[1], kCmdHwVersion);
             EXPECT_EQ(a[2] & 0x80, 0x80);
             EXPECT_EQ(h.Cmd(hw)[1], kCmdHwVersion);  // count 1: the next answer is good again
         }},
        {"no accept bit, one code", [&](SimHost& h, SimDevice& d) {
             d.SetAckFault(SimAckFault::kNoAcceptBit, kCmdHwVersion);
             EXPECT_EQ(h.Cmd(hw)[2] & 0x80, 0);
             EXPECT_EQ(h.Cmd(SimCmd(kCmdFwVersion))[2] & 0x80, 0x80);
         }},
        {"short answer", [&](SimHost& h, SimDevice& d) {
             d.SetAckFault(SimAckFault::kShort);
             EXPECT_EQ(h.Cmd(hw).size(), 2u);
         }},
        {"zero-length answer", [&](SimHost& h, SimDevice& d) {
             d.SetAckFault(SimAckFault::kZeroLength);
             Bytes zlp;
             ASSERT_EQ(h.Out(kEpCmdOut, hw), 0);
             EXPECT_EQ(h.In(kEpCmdIn, &zlp), 0);
             EXPECT_TRUE(zlp.empty());
         }},
        {"no answer", [&](SimHost& h, SimDevice& d) {
             d.SetAckFault(SimAckFault::kNoAck);
             Bytes none;
             ASSERT_EQ(h.Out(kEpCmdOut, hw), 0);
             EXPECT_EQ(h.In(kEpCmdIn, &none, 64, 200), LIBUSB_ERROR_TIMEOUT);
         }},
        {"late answer", [&](SimHost& h, SimDevice& d) {
             d.SetDelay(150);
             auto t0 = std::chrono::steady_clock::now();
             Bytes ack;
             ASSERT_EQ(h.Out(kEpCmdOut, hw), 0);
             EXPECT_EQ(h.In(kEpCmdIn, &ack, 64, 100), LIBUSB_ERROR_TIMEOUT);
             EXPECT_EQ(h.In(kEpCmdIn, &ack, 64, 1000), 0);
             EXPECT_GE(MsSince(t0), 145u);
             EXPECT_EQ(ack[1], kCmdHwVersion);
         }},
        {"OUT transfer that never completes", [&](SimHost& h, SimDevice& d) {
             d.SetOutFault(kEpCmdOut, SimOutFault::kNever);
             size_t sent = d.Sent(kEpCmdOut).size(), attempts = d.OutAttempts(kEpCmdOut);
             auto t0 = std::chrono::steady_clock::now();
             EXPECT_EQ(h.Out(kEpCmdOut, hw, 300), LIBUSB_ERROR_TIMEOUT);
             EXPECT_GE(MsSince(t0), 290u);
             EXPECT_EQ(d.Sent(kEpCmdOut).size(), sent);
             EXPECT_EQ(d.OutAttempts(kEpCmdOut), attempts + 1);
         }},
        {"stalled OUT transfer, then clear halt", [&](SimHost& h, SimDevice& d) {
             d.SetOutFault(kEpDataOut, SimOutFault::kStall);
             EXPECT_EQ(h.Out(kEpDataOut, SimTxPacket(0, 1, 1)), LIBUSB_ERROR_PIPE);
             d.ClearFaults();
             EXPECT_EQ(libusb_clear_halt(h.handle(), kEpDataOut), 0);
             EXPECT_EQ(h.Out(kEpDataOut, SimTxPacket(0, 1, 1)), 0);
             EXPECT_EQ(d.Sent(kEpDataOut), std::vector<Bytes>{SimTxPacket(0, 1, 1)});
             Bytes ack;
             EXPECT_EQ(h.In(kEpCmdIn, &ack), 0);  // the packet's answer (channel not started)
         }},
        {"raw transfers of any size", [&](SimHost& h, SimDevice& d) {
             const size_t sizes[] = {21, 0, 64, 64, 12};
             for (size_t n : sizes) d.InjectRaw(Bytes(n, static_cast<uint8_t>(n)));
             for (size_t n : sizes) {
                 Bytes got;
                 ASSERT_EQ(h.In(kEpDataIn, &got, 1024), 0);
                 EXPECT_EQ(got, Bytes(n, static_cast<uint8_t>(n)));
             }
         }},
        {"notices and frames on invalid channels", [&](SimHost& h, SimDevice& d) {
             d.InjectNotice(1, kEvPassive, 0x11, 0x22, 0x33);
             d.InjectFrame(2, SimFrame());
             d.InjectNotice(0, 0xE6);
             std::vector<SimRecord> recs = SimReadRecords(h, 3);
             ASSERT_EQ(recs.size(), 3u);
             EXPECT_EQ(recs[0].event, kEvPassive);
             EXPECT_EQ(recs[0].Channel(), 1u);
             EXPECT_EQ(Bytes(recs[0].raw, recs[0].raw + 3), (Bytes{0x11, 0x22, 0x33}));
             EXPECT_EQ(recs[1].Channel(), 2u);
             EXPECT_EQ(recs[2].event, 0xE6);
         }},
        {"partial and zero transmit acceptance", [&](SimHost& h, SimDevice& d) {
             ASSERT_TRUE(SimStartChannel(h, 0));
             ASSERT_TRUE(SimStartChannel(h, 1));
             Bytes ack;
             d.SetTxAccept(1);
             ASSERT_EQ(h.Out(kEpDataOut, SimTxPacket(0, 0x20, 3)), 0);
             ASSERT_EQ(h.In(kEpCmdIn, &ack), 0);
             EXPECT_EQ(ack[2], 1);
             d.SetTxAccept(0);
             ASSERT_EQ(h.Out(kEpDataOut, SimTxPacket(0, 0x30, 3)), 0);
             ASSERT_EQ(h.In(kEpCmdIn, &ack), 0);
             EXPECT_EQ(ack[2], 0);
             std::vector<SimRecord> recs = SimReadRecords(h, 2, 300);  // only the accepted frame
             ASSERT_EQ(recs.size(), 1u);
             EXPECT_EQ(recs[0].ToFrame().id, 0x20u);
         }},
    };
    for (const FaultRow& row : rows) {
        SCOPED_TRACE(row.fault);
        row.run(host, bed.Adapter(0));
        bed.Adapter(0).ClearFaults();
        EXPECT_EQ(host.Cmd(hw).size(), 6u);
    }
}
