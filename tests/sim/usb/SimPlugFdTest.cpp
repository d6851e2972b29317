// Unplug and replug keep no file descriptor behind: the emulation is torn down with the node.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "SimUsbTestUtil.h"
#include "usb/SimTestbed.h"

using namespace vexlo_sim;

TEST(SimPlug, sixty_unplug_replug_cycles_keep_no_descriptor) {
    auto open_fds = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    SimTestbed bed(1);
    ASSERT_TRUE(bed.Ok());
    std::ptrdiff_t before = 0;
    for (int i = 0; i <= 60; ++i) {
        if (i == 1) before = open_fds();  // cycle 0 sets up what libusb and umockdev keep for good
        SimHost host;
        ASSERT_TRUE(host.Open() && host.Cmd(SimCmd(kCmdHwVersion)).size() == 6) << "cycle " << i;
        host.Close();
        ASSERT_TRUE(bed.Adapter(0).Unplug());
        for (int k = 0; k < 500 && SimCountAdapters() != 0; ++k) usleep(2000);
        ASSERT_TRUE(bed.Adapter(0).Replug());
        for (int k = 0; k < 500 && SimCountAdapters() != 1; ++k) usleep(2000);
    }
    EXPECT_EQ(open_fds(), before);
}
