// A Linux CAN interface as a client of the hub: a raw CAN socket bound to a vcan interface, or to
// one end of a vxcan pair, joins one bus. Every frame of the bus (the adapter's, with its notices
// as error frames, and those of the hub's other clients) is written to the interface, so every
// program there receives it; every frame a program writes there goes to the adapter and to the
// hub's other clients.
#pragma once

#include <linux/can.h>

#include <cstdint>
#include <deque>
#include <string>

#include "Hub.h"
#include "Loop.h"

namespace vexlo_serve {

class XSocketCanLink : public XHubClient {
public:
    // Frames for the interface held while its socket takes no more; beyond that they are dropped,
    // counted and logged.
    static const size_t kOutFrames = 1024;
    // The socket's receive buffer: the programs' frames wait there while the adapter is busy.
    static const int kReceiveBuffer = 1 << 20;

    XSocketCanLink(XLoop* loop, XHub* hub, const std::string& iface, unsigned bus)
        : loop_(loop), hub_(hub), iface_(iface), bus_(bus) {}
    ~XSocketCanLink() override { Stop(); }
    // Finds the interface (where it is missing, creates it as a vcan when the server may), binds a
    // socket to it and joins the bus. False with the reason in *why.
    bool Start(std::string* why);
    // Leaves the bus, closes the socket and removes the interface if Start created it; logs the
    // link's counts.
    void Stop();
    // The adapter is open again after an unplug: the link joins its bus again.
    void Back();

    // XHubClient
    void OnFrames(const VEXLO_FRAME* frames, unsigned count) override;
    void OnRefused(const CAN_OBJ& frame) override;
    void OnRoom() override;
    void OnGone() override;

private:
    bool Attach(std::string* why);
    void Readable();
    void CountDrops();
    void Forward(const CAN_OBJ& frame);
    bool Write(const can_frame& frame);
    void Flush();
    void Watch();
    void Later();
    void Report();

    XLoop* loop_;
    XHub* hub_;
    std::string iface_;
    unsigned bus_;
    int fd_ = -1;
    int index_ = 0;
    bool created_ = false;
    bool bound_ = false;
    bool joined_ = false;
    bool reading_ = false;
    std::deque<CAN_OBJ> held_;    // read from the interface, waiting for room in the hub
    std::deque<can_frame> out_;   // for the interface, waiting for its socket
    XTimer retry_;                // writes out_ again
    XTimer report_;               // the next line about losses
    int write_error_ = 0;         // the last error of a write
    uint32_t kernel_drops_ = 0;   // the socket's count of frames the kernel dropped for it
    // What went where; each loss is logged once it grew, at most one line a second.
    struct Count {
        uint64_t now = 0, logged = 0;
    };
    uint64_t sent_ = 0, written_ = 0;
    Count refused_, away_, lost_in_, lost_out_;
};

// Parses a --socketcan value "IFACE=CH" (CH 0 or 1; IFACE a network interface name of 1 to 15
// characters). Example: "vcan0=1".
bool ParseSocketCanOption(const std::string& value, std::string* iface, unsigned* bus);

}  // namespace vexlo_serve
