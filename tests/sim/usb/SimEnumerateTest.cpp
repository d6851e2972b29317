// Enumeration, claiming, positions, identity answers and the absence of adapters.
#include <gtest/gtest.h>

#include "SimUsbTestUtil.h"
#include "usb/SimTestbed.h"

using namespace vexlo_sim;

TEST(SimEnumerate, finds_claims_and_answers_hw_version) {
    SimTestbed bed(1);
    ASSERT_TRUE(bed.Ok());
    SimHost host;
    ASSERT_TRUE(host.Open(0));
    Bytes ack = host.Cmd(SimCmd(kCmdHwVersion));
    ASSERT_EQ(ack.size(), 6u);
    EXPECT_EQ(ack[1], kCmdHwVersion);
    EXPECT_EQ(ack[2] & 0x80, 0x80);
    EXPECT_EQ(ack[4] | (ack[5] << 8), 0x0210);
    EXPECT_EQ(bed.Adapter(0).Sent(kEpCmdOut), std::vector<Bytes>{SimCmd(kCmdHwVersion)});
}

TEST(SimEnumerate, no_adapter_present) {
    SimTestbed bed(0);
    ASSERT_TRUE(bed.Ok());
    EXPECT_EQ(SimCountAdapters(), 0);
    SimHost host;
    EXPECT_FALSE(host.Open(0));
}

TEST(SimEnumerate, positions_follow_the_device_list) {
    SimTestbed bed(3);
    ASSERT_TRUE(bed.Ok());
    EXPECT_EQ(SimCountAdapters(), 3);
    for (unsigned p = 0; p < 3; ++p) {
        SimHost host;
        ASSERT_TRUE(host.Open(p));
        Bytes ack = host.Cmd(SimCmd(kCmdSerial));
        ASSERT_GE(ack.size(), 4u);
        std::string serial(ack.begin() + 4, ack.end());
        EXPECT_EQ(serial, SimAdapter::DefaultSerial(p)) << "position " << p;
        EXPECT_EQ(bed.Adapter(p).Sent(kEpCmdOut).size(), 1u);
    }
}
