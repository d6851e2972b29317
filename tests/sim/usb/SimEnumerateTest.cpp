// What the library's tests cannot see: that plain libusb finds every adapter of a testbed, opens
// and claims one, and the emulated descriptors. (That each position is its own adapter is checked
// through the library.)
#include <gtest/gtest.h>

#include "SimUsbTestUtil.h"
#include "usb/SimTestbed.h"

using namespace vexlo_sim;

TEST(SimEnumerate, descriptors_and_claiming) {
    SimTestbed bed(3);
    ASSERT_TRUE(bed.Ok());
    EXPECT_EQ(SimCountAdapters(), 3);
    SimHost host;
    ASSERT_TRUE(host.Open(2));  // opens the third and claims its interface 0
    Bytes ack = host.Cmd(SimCmd(kCmdSerial));
    ASSERT_GE(ack.size(), 4u);
    EXPECT_EQ(std::string(ack.begin() + 4, ack.end()), SimAdapter::DefaultSerial(2));
    // One vendor-class interface with four bulk endpoints of 64 bytes.
    libusb_config_descriptor* cfg = nullptr;
    ASSERT_EQ(libusb_get_active_config_descriptor(libusb_get_device(host.handle()), &cfg), 0);
    ASSERT_EQ(cfg->bNumInterfaces, 1);
    const libusb_interface_descriptor& itf = cfg->interface[0].altsetting[0];
    EXPECT_EQ(itf.bInterfaceClass, 0xFF);
    ASSERT_EQ(itf.bNumEndpoints, 4);
    const uint8_t eps[] = {kEpCmdOut, kEpCmdIn, kEpDataOut, kEpDataIn};
    for (int e = 0; e < 4; ++e) {
        EXPECT_EQ(itf.endpoint[e].bEndpointAddress, eps[e]);
        EXPECT_EQ(itf.endpoint[e].bmAttributes, LIBUSB_TRANSFER_TYPE_BULK);
        EXPECT_EQ(itf.endpoint[e].wMaxPacketSize, 64);
    }
    libusb_free_config_descriptor(cfg);
}
