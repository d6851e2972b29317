// One plugged-in adapter under umockdev: the ioctl handler of its usbfs node, serving the URB
// calls of the host's libusb (submit, reap, discard, claim, release, clear halt, capabilities)
// and feeding the adapter model. URBs are kept per client (open file). Client memory is reached
// in copy mode: the URB and its buffer are fetched on submit and written back on reap.
//
// All members are guarded by the testbed's lock; the handler takes it, everything else is called
// with it held. The handler runs on umockdev's single worker thread and never blocks beyond it.
#pragma once

#include <umockdev.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "model/SimAdapter.h"
#include "usb/SimHostLog.h"
#include "usb/SimReadiness.h"

namespace vexlo_sim {

class SimUsbDevice {
public:
    SimUsbDevice(std::mutex* mu, SimAdapter* adapter, SimHostLog* log, uint64_t (*clock)(),
                 std::function<void()> kick);
    ~SimUsbDevice();
    SimUsbDevice(const SimUsbDevice&) = delete;
    SimUsbDevice& operator=(const SimUsbDevice&) = delete;

    // Turns the node into a FIFO and attaches the handler; without the lock held.
    bool Attach(UMockdevTestbed* tb, const std::string& node);
    // Stops serving (the handler answers nothing more); without the lock held.
    void Detach();
    // Once unplugged and left by every client: stops serving, gives the node's socket and FIFO
    // back and detaches from the testbed, so that nothing of it stays open. Without any lock held:
    // the detach waits for umockdev's thread, which may be waiting for the testbed's lock.
    void Retire();

    // Hands waiting answers and data to armed IN URBs. Lock held.
    void Pump(uint64_t now);
    // In-flight URBs end with -ESHUTDOWN, later calls fail with ENODEV. Lock held.
    void Unplug();

    bool Gone() const { return gone_; }
    // Unplugged and no client left: ready to be retired. Lock held.
    bool Idle() const { return gone_ && clients_.empty(); }

private:
    struct Client;
    struct Urb {
        UMockdevIoctlData* urb = nullptr;  // the client's struct usbdevfs_urb
        UMockdevIoctlData* buf = nullptr;  // its buffer
        unsigned long addr = 0;            // the URB's address in the client
        uint8_t ep = 0;
        size_t len = 0;
        Client* client = nullptr;
    };
    struct Client {
        SimUsbDevice* dev;
        UMockdevIoctlClient* key;
        std::deque<Urb*> done;
    };

    static gboolean OnIoctl(UMockdevIoctlBase* handler, UMockdevIoctlClient* client, gpointer self);
    static void OnClientGone(gpointer data, GObject* where);
    gboolean Handle(UMockdevIoctlClient* client);
    void Submit(UMockdevIoctlClient* client, Client* c);
    void Reap(UMockdevIoctlClient* client, Client* c);
    void Discard(UMockdevIoctlClient* client, Client* c);
    void Out(Urb* u);
    void Finish(Urb* u, int status, size_t actual);
    void Fill(Urb* u, const Bytes& data);
    void Free(Urb* u);
    void UpdateReadiness();
    Client* ClientFor(UMockdevIoctlClient* client);
    std::deque<Urb*>& Armed(uint8_t ep);

    std::mutex* mu_;
    SimAdapter* adapter_;
    SimHostLog* log_;
    uint64_t (*clock_)();
    std::function<void()> kick_;  // wakes the engine after the adapter got work; lock held
    UMockdevTestbed* tb_ = nullptr;
    UMockdevIoctlBase* handler_ = nullptr;
    std::string node_;
    SimReadiness ready_;
    bool gone_ = false;
    const void* claimed_by_ = nullptr;  // the client holding interface 0, as usbfs keeps it per file
    size_t done_total_ = 0;
    std::map<UMockdevIoctlClient*, Client*> clients_;
    std::deque<Urb*> armed_[4];  // URBs waiting on 0x01, 0x81, 0x02, 0x82
};

}  // namespace vexlo_sim
