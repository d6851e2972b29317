#include "usb/SimTestbed.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>

#include "usb/SimDescriptors.h"
#include "usb/SimEnvironment.h"
#include "usb/SimUsbDevice.h"

namespace vexlo_sim {

SimTestbed::SimTestbed(unsigned adapters, const std::vector<SimIdentity>& ids, bool in_process) {
    SimEnvironment::Prepare();
    tb_ = umockdev_testbed_new();
    in_process_ = in_process;
    ok_ = !in_process || SimEnvironment::Check();
    for (unsigned i = 0; i < adapters; ++i)
        devices_.push_back(std::make_unique<SimDevice>(this, i, i < ids.size() ? ids[i] : SimIdentity()));
    for (auto& d : devices_)
        if (!d->Plug()) ok_ = false;
    engine_ = std::thread(&SimTestbed::Engine, this);
}

SimTestbed::~SimTestbed() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        stop_ = true;
        cv_.notify_all();
    }
    engine_.join();
    devices_.clear();
    g_object_unref(tb_);
}

uint64_t SimTestbed::Now() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

void SimTestbed::Kick() {
    kicked_ = true;
    cv_.notify_one();
}

void SimTestbed::WakeBy(uint64_t due) {
    if (due < sleep_until_) Kick();
}

bool SimTestbed::AddNode(SimUsbDevice* usb, unsigned position, std::string* syspath) {
    unsigned devnum;
    {
        std::lock_guard<std::mutex> lock(mu_);
        devnum = next_devnum_++;
    }
    char name[32], node[64], num[16], busdev[16], dev[16];
    // libusb scans the devices in the order of their sysfs paths and puts each one at the head of
    // its list: names that sort backwards make position i the i-th adapter of the list.
    std::snprintf(name, sizeof name, "1-%03u", 999 - position % 1000);
    std::snprintf(node, sizeof node, "/dev/bus/usb/001/%03u", devnum);
    std::snprintf(num, sizeof num, "%u", devnum);
    std::snprintf(busdev, sizeof busdev, "%03u", devnum);
    std::snprintf(dev, sizeof dev, "189:%u", devnum - 1);
    // Added without its device type first: libusb's hotplug monitor ignores the device until the
    // descriptors and the handler are in place and the "add" event below announces it.
    gchar* path = umockdev_testbed_add_device(
        tb_, "usb", name, nullptr, "busnum", "1", "devnum", num, "speed", "12", "idVendor", "0471",
        "idProduct", "1200", "bConfigurationValue", "1", "bNumConfigurations", "1", "dev", dev,
        nullptr, "DEVNAME", node, "BUSNUM", "001", "DEVNUM", busdev, "PRODUCT", "471/1200/100",
        nullptr);
    if (!path) {
        std::fprintf(stderr, "vexlo-sim: cannot add adapter %u\n", position);
        return false;
    }
    *syspath = path;
    g_free(path);
    std::vector<uint8_t> blob = SimDescriptorBlob();
    umockdev_testbed_set_attribute_binary(tb_, syspath->c_str(), "descriptors", blob.data(),
                                          static_cast<gint>(blob.size()));
    gchar* root = umockdev_testbed_get_root_dir(tb_);
    gchar* dir = g_strdup_printf("%s/dev/bus/usb/001", root);
    g_mkdir_with_parents(dir, 0755);
    g_free(dir);
    g_free(root);
    if (!usb->Attach(tb_, node)) return false;
    umockdev_testbed_set_property(tb_, syspath->c_str(), "DEVTYPE", "usb_device");
    // The event tells a running libusb context about a (re)plugged adapter. A host in a child
    // process starts after this and finds the adapter by scanning; without the preload in this
    // process the event could not be sent anyway.
    if (in_process_) umockdev_testbed_uevent(tb_, syspath->c_str(), "add");
    return true;
}

void SimTestbed::RemoveNode(const std::string& syspath) {
    umockdev_testbed_uevent(tb_, syspath.c_str(), "remove");
    umockdev_testbed_remove_device(tb_, syspath.c_str());
}

void SimTestbed::Engine() {
    std::unique_lock<std::mutex> lock(mu_);
    while (!stop_) {
        uint64_t now = Now();
        uint64_t due = UINT64_MAX;
        bool sweep = false;
        for (auto& d : devices_) {
            d->Tick(now);
            due = std::min(due, d->NeedsBy(now));
            sweep = sweep || d->SweepPending();
        }
        if (sweep) {
            // Retiring a node waits for umockdev's thread, which may be waiting for the lock.
            lock.unlock();
            for (auto& d : devices_) d->Sweep();
            lock.lock();
            continue;
        }
        // Woken early by Kick, or by WakeBy for anything due before `due`.
        kicked_ = false;
        sleep_until_ = due;
        auto woken = [this] { return stop_ || kicked_; };
        if (due != UINT64_MAX) {
            std::chrono::steady_clock::time_point at{std::chrono::nanoseconds(due)};
            cv_.wait_until(lock, at, woken);
        } else {
            cv_.wait(lock, woken);
        }
    }
}

}  // namespace vexlo_sim
