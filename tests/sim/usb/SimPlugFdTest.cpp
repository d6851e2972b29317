// Unplug and replug keep no file descriptor behind: the emulation is torn down with the node.
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "SimUsbTestUtil.h"
#include "usb/SimTestbed.h"

using namespace vexlo_sim;

namespace {

int OpenFds() {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    while (readdir(d)) ++n;
    closedir(d);
    return n;
}

// One host session on the adapter, then an unplug and a replug, each seen by libusb.
bool Cycle(SimDevice& dev) {
    SimHost host;
    if (!host.Open() || host.Cmd(SimCmd(kCmdHwVersion)).size() != 6) return false;
    host.Close();
    if (!dev.Unplug()) return false;
    for (int i = 0; i < 500 && SimCountAdapters() != 0; ++i) usleep(2000);
    if (!dev.Replug()) return false;
    for (int i = 0; i < 500 && SimCountAdapters() != 1; ++i) usleep(2000);
    return SimCountAdapters() == 1;
}

}  // namespace

TEST(SimPlug, sixty_unplug_replug_cycles_keep_no_descriptor) {
    SimTestbed bed(1);
    ASSERT_TRUE(bed.Ok());
    ASSERT_TRUE(Cycle(bed.Adapter(0)));  // libusb and umockdev set up what they keep for good
    int before = OpenFds();
    for (int i = 0; i < 60; ++i) ASSERT_TRUE(Cycle(bed.Adapter(0))) << "cycle " << i;
    EXPECT_EQ(OpenFds(), before);
}
