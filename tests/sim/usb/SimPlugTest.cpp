// Unplug in the middle of traffic, replug, a replug seen by the same libusb context, and an idle
// event loop that really blocks.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
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

// The 0471:1200 devices in the list of the default context, without touching its reference count.
std::vector<libusb_device*> ListAdapters(libusb_device*** list) {
    std::vector<libusb_device*> found;
    ssize_t n = libusb_get_device_list(nullptr, list);
    for (ssize_t i = 0; i < n; ++i) {
        libusb_device_descriptor d;
        if (libusb_get_device_descriptor((*list)[i], &d) == 0 && d.idVendor == 0x0471 && d.idProduct == 0x1200)
            found.push_back((*list)[i]);
    }
    return found;
}

size_t CountIn(size_t want, unsigned timeout_ms) {
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    size_t n;
    for (;;) {
        libusb_device** list = nullptr;
        n = ListAdapters(&list).size();
        if (list) libusb_free_device_list(list, 1);
        if (n == want || std::chrono::steady_clock::now() >= until) return n;
        usleep(10000);
    }
}

}  // namespace

TEST(SimPlug, unplug_ends_armed_transfers_and_later_calls_fail_then_replug_works) {
    SimTestbed bed(1);
    ASSERT_TRUE(bed.Ok());
    SimHost host;
    ASSERT_TRUE(host.Open());
    ASSERT_TRUE(SimStartChannel(host, 1));
    SimGenConfig cfg;
    cfg.rate = 2000;
    bed.Adapter(0).StartGenerator(1, cfg);

    unsigned char buf[1024];
    int status = -1;
    libusb_transfer* t = libusb_alloc_transfer(0);
    libusb_fill_bulk_transfer(t, host.handle(), kEpCmdIn, buf, 64, &Callback, &status, 0);
    ASSERT_EQ(libusb_submit_transfer(t), 0);
    ASSERT_TRUE(bed.Adapter(0).Unplug());
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (status == -1 && std::chrono::steady_clock::now() < until) {
        timeval tv{0, 100000};
        libusb_handle_events_timeout(nullptr, &tv);
    }
    EXPECT_EQ(status, LIBUSB_TRANSFER_NO_DEVICE);
    libusb_free_transfer(t);
    Bytes got;
    EXPECT_EQ(host.Out(kEpCmdOut, SimCmd(kCmdHwVersion)), LIBUSB_ERROR_NO_DEVICE);
    host.Close();

    for (int i = 0; i < 100 && SimCountAdapters() != 0; ++i) usleep(10000);
    EXPECT_EQ(SimCountAdapters(), 0);
    ASSERT_TRUE(bed.Adapter(0).Replug());
    for (int i = 0; i < 100 && SimCountAdapters() != 1; ++i) usleep(10000);
    ASSERT_EQ(SimCountAdapters(), 1);
    SimHost again;
    ASSERT_TRUE(again.Open());
    EXPECT_EQ(again.Cmd(SimCmd(kCmdHwVersion)).size(), 6u);
    EXPECT_EQ(bed.Adapter(0).Channel(1).state, SimChanState::kReset);  // powered anew
}

TEST(SimPlug, one_context_sees_unplug_and_replug) {
    SimTestbed bed(1);
    ASSERT_TRUE(bed.Ok());
    // One default context for the whole case, as the library keeps it for the process.
    ASSERT_EQ(libusb_init(nullptr), 0);
    ASSERT_EQ(CountIn(1, 0), 1u);

    ASSERT_TRUE(bed.Adapter(0).Unplug());
    EXPECT_EQ(CountIn(0, 2000), 0u);
    ASSERT_TRUE(bed.Adapter(0).Replug());
    ASSERT_EQ(CountIn(1, 2000), 1u);

    libusb_device** list = nullptr;
    std::vector<libusb_device*> found = ListAdapters(&list);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(libusb_get_bus_number(found[0]), 1);
    EXPECT_EQ(libusb_get_device_address(found[0]), 3);  // the replug got a new device number
    libusb_device_handle* h = nullptr;
    ASSERT_EQ(libusb_open(found[0], &h), 0);
    libusb_free_device_list(list, 1);
    ASSERT_EQ(libusb_claim_interface(h, 0), 0);
    unsigned char cmd[] = {0x12, kCmdHwVersion, 0x01, 0x00};
    unsigned char ack[64];
    int done = 0;
    EXPECT_EQ(libusb_bulk_transfer(h, kEpCmdOut, cmd, sizeof cmd, &done, 1000), 0);
    EXPECT_EQ(done, 4);
    done = 0;
    EXPECT_EQ(libusb_bulk_transfer(h, kEpCmdIn, ack, sizeof ack, &done, 1000), 0);
    ASSERT_EQ(done, 6);
    EXPECT_EQ(ack[1], kCmdHwVersion);
    EXPECT_EQ(ack[2] & 0x80, 0x80);
    EXPECT_EQ(bed.Adapter(0).Sent(kEpCmdOut), std::vector<Bytes>{SimCmd(kCmdHwVersion)});
    libusb_release_interface(h, 0);
    libusb_close(h);
    libusb_exit(nullptr);
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
    while (std::chrono::steady_clock::now() - t0 < std::chrono::seconds(1)) {
        timeval tv{0, 100000};
        libusb_handle_events_timeout(nullptr, &tv);
        ++loops;
    }
    double cpu = CpuSeconds() - cpu0;
    EXPECT_LT(cpu, 0.10) << "idle CPU seconds over one second";
    EXPECT_LE(loops, 20u);  // waits of 100 ms, not a spin

    libusb_cancel_transfer(t1);
    libusb_cancel_transfer(t2);
    while (s1 == -1 || s2 == -1) {
        timeval tv{0, 100000};
        libusb_handle_events_timeout(nullptr, &tv);
    }
    EXPECT_EQ(s1, LIBUSB_TRANSFER_CANCELLED);
    libusb_free_transfer(t1);
    libusb_free_transfer(t2);
}
