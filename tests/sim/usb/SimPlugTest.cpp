// Unplug with a transfer armed and replug, seen by one libusb context, and an idle event loop
// that really blocks.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <vector>

#include "SimUsbTestUtil.h"
#include "usb/SimTestbed.h"

using namespace vexlo_sim;

namespace {

void Callback(libusb_transfer* t) { *static_cast<int*>(t->user_data) = t->status; }

double CpuSeconds() {
    rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

// Handles events until every status is set (by Callback) or two seconds have passed.
void AwaitCallbacks(std::vector<int*> statuses) {
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    for (int* s : statuses)
        while (*s == -1 && std::chrono::steady_clock::now() < until) {
            timeval tv{0, 100000};
            libusb_handle_events_timeout(nullptr, &tv);
        }
}

// Waits up to two seconds for the default context's list to hold `want` adapters.
int AwaitAdapters(int want) {
    int n = SimCountAdapters();
    for (int i = 0; i < 200 && n != want; ++i, n = SimCountAdapters()) usleep(10000);
    return n;
}

}  // namespace

TEST(SimPlug, unplug_ends_armed_transfers_and_the_same_context_sees_the_replug) {
    SimTestbed bed(1);
    ASSERT_TRUE(bed.Ok());
    SimHost host;  // holds the default context for the whole case, as the library does
    ASSERT_TRUE(host.Open());
    host.Cmd(SimCmd(kCmdTiming, {0x10, 0x00, 0x14}));  // channel 1 started: the unplug must reset it
    host.Cmd(SimCmd(kCmdStart, {0x10}));
    ASSERT_EQ(bed.Adapter(0).Channel(1).state, SimChanState::kStarted);
    unsigned char buf[64];
    int status = -1;
    libusb_transfer* t = libusb_alloc_transfer(0);
    libusb_fill_bulk_transfer(t, host.handle(), kEpCmdIn, buf, sizeof buf, &Callback, &status, 0);
    ASSERT_EQ(libusb_submit_transfer(t), 0);
    ASSERT_TRUE(bed.Adapter(0).Unplug());
    AwaitCallbacks({&status});
    EXPECT_EQ(status, LIBUSB_TRANSFER_NO_DEVICE);
    libusb_free_transfer(t);
    EXPECT_EQ(host.Out(kEpCmdOut, SimCmd(kCmdHwVersion)), LIBUSB_ERROR_NO_DEVICE);
    host.Close();
    EXPECT_EQ(AwaitAdapters(0), 0);

    ASSERT_TRUE(bed.Adapter(0).Replug());
    ASSERT_EQ(AwaitAdapters(1), 1);
    SimHost again;
    ASSERT_TRUE(again.Open());
    libusb_device* dev = libusb_get_device(again.handle());
    EXPECT_EQ(libusb_get_bus_number(dev), 1);
    EXPECT_EQ(libusb_get_device_address(dev), 3);  // the replug got a new device number
    EXPECT_EQ(again.Cmd(SimCmd(kCmdHwVersion)).size(), 6u);
    EXPECT_EQ(bed.Adapter(0).Sent(kEpCmdOut).back(), SimCmd(kCmdHwVersion));
    EXPECT_EQ(bed.Adapter(0).Channel(1).state, SimChanState::kReset);  // powered anew
}

TEST(SimPlug, idle_event_loop_blocks) {
    SimTestbed bed(1);
    ASSERT_TRUE(bed.Ok());
    SimHost host;
    ASSERT_TRUE(host.Open());
    unsigned char ack[64], data[1024];
    int s1 = -1, s2 = -1;
    libusb_transfer* t1 = libusb_alloc_transfer(0);
    libusb_transfer* t2 = libusb_alloc_transfer(0);
    libusb_fill_bulk_transfer(t1, host.handle(), kEpCmdIn, ack, 64, &Callback, &s1, 0);
    libusb_fill_bulk_transfer(t2, host.handle(), kEpDataIn, data, 1024, &Callback, &s2, 0);
    ASSERT_EQ(libusb_submit_transfer(t1), 0);
    ASSERT_EQ(libusb_submit_transfer(t2), 0);

    double cpu0 = CpuSeconds();
    auto t0 = std::chrono::steady_clock::now();
    unsigned loops = 0;
    for (; std::chrono::steady_clock::now() - t0 < std::chrono::seconds(1); ++loops) {
        timeval tv{0, 100000};
        libusb_handle_events_timeout(nullptr, &tv);
    }
    EXPECT_LT(CpuSeconds() - cpu0, 0.10) << "idle CPU seconds over one second";
    EXPECT_LE(loops, 20u);  // waits of 100 ms, not a spin

    libusb_cancel_transfer(t1);
    libusb_cancel_transfer(t2);
    AwaitCallbacks({&s1, &s2});
    EXPECT_EQ(s1, LIBUSB_TRANSFER_CANCELLED);
    libusb_free_transfer(t1);
    libusb_free_transfer(t2);
}
