// The simulated adapters under the real libusb. Create the testbed first thing in a test (or a
// process), before any libusb call: libusb's default context must be born after it, and it keeps
// the process environment it sets (UMOCKDEV_DIR). One testbed per process.
//
//   vexlo_sim::SimTestbed bed(1);           // one adapter at position 0
//   ASSERT_TRUE(bed.Ok());
//   ... libusb or libvexlo calls ...
//   bed.Adapter(0).Sent(vexlo_sim::kEpCmdOut);
#pragma once

#include <umockdev.h>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "model/SimAdapter.h"
#include "usb/SimDevice.h"

namespace vexlo_sim {

class SimTestbed {
public:
    // `adapters` adapters at positions 0..n-1 (0: none present); ids[i] overrides the identity of
    // the adapter at position i. `in_process`: the preload is linked into this process, because
    // the host runs here or because plug events are sent to a host in a child process (vexlo-sim);
    // false when nothing here goes through the preload.
    explicit SimTestbed(unsigned adapters, const std::vector<SimIdentity>& ids = {},
                        bool in_process = true);
    ~SimTestbed();
    SimTestbed(const SimTestbed&) = delete;
    SimTestbed& operator=(const SimTestbed&) = delete;

    // False when the preload is missing or an adapter could not be set up (reasons on stderr).
    bool Ok() const { return ok_; }
    unsigned Count() const { return static_cast<unsigned>(devices_.size()); }
    SimDevice& Adapter(unsigned position) { return *devices_.at(position); }

    // Monotonic nanoseconds, the model's clock.
    static uint64_t Now();
    // How often the engine moves the buses on while one is busy.
    static constexpr uint64_t kTickNs = 1000000;

    // For SimDevice.
    std::mutex mu_;
    void Kick();  // the engine looks again now (lock held)
    // The engine looks again by `due` (lock held): it is woken only if it would sleep longer.
    void WakeBy(uint64_t due);
    bool AddNode(SimUsbDevice* usb, unsigned position, std::string* syspath);
    void RemoveNode(const std::string& syspath);

private:
    void Engine();

    bool ok_ = false;
    bool in_process_ = true;  // the host runs in this process, under the preload
    UMockdevTestbed* tb_ = nullptr;
    std::vector<std::unique_ptr<SimDevice>> devices_;
    unsigned next_devnum_ = 2;
    std::condition_variable cv_;
    bool stop_ = false;
    bool kicked_ = false;
    uint64_t sleep_until_ = 0;  // when the waiting engine looks again by itself; max: never
    std::thread engine_;
};

}  // namespace vexlo_sim
