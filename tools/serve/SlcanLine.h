// Serial-line CAN (Lawicel, SLCAN) clients of the hub: each line serves one bus to one client at a
// time, on a pseudo-terminal reached through a symbolic link, or on a TCP port.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Hub.h"
#include "Loop.h"
#include "OutQueue.h"
#include "SlcanSession.h"

namespace vexlo_serve {

// One line: the client's descriptor (a pseudo-terminal's master, or an accepted connection), its
// session and its bounded output. The line is a hub client while its session is open, so it sees
// the frames of the bus's other clients and they see its frames.
class XSlcanLine : public XHubClient, public vexlo_tool::XSlcanPort {
public:
    // Output held for a client that reads too slowly: frames beyond kOutLimit are dropped and
    // counted; replies may use kReplyRoom more, so that a client gets the answers to its commands
    // (and the flag of the frames it lost) after the frames it was too slow to take.
    static const size_t kOutLimit = 64 * 1024;
    static const size_t kReplyRoom = 16 * 1024;

    XSlcanLine(XLoop* loop, XHub* hub, unsigned bus, const std::string& name);
    ~XSlcanLine() override { Detach(); }
    // Serves a new client on `fd` (non-blocking, owned by the line from now on) with a fresh
    // session. `on_hangup` runs when the client goes away, after the line has let go of fd.
    void Attach(int fd, std::function<void()> on_hangup);
    // Ends the client's session and closes its descriptor.
    void Detach();
    bool attached() const { return fd_ >= 0; }

    // XHubClient
    void OnFrames(const VEXLO_FRAME* frames, unsigned count) override;
    void OnRefused(const CAN_OBJ& frame) override;
    void OnRoom() override;
    void OnGone() override;
    // XSlcanPort
    CAN_INIT Config() override { return hub_->Config(bus_); }
    bool Configure(const CAN_INIT& init) override;
    SendResult Send(const CAN_OBJ& frame) override;
    bool SetOpen(bool open) override;

private:
    void Events(uint32_t events);
    void Flush(const std::string& text, bool frame);
    void Watch();

    XLoop* loop_;
    XHub* hub_;
    unsigned bus_;
    std::string name_;
    int fd_ = -1;
    std::function<void()> on_hangup_;
    vexlo_tool::XSlcanSession session_;
    XOutQueue out_{kOutLimit};
    std::string text_;                 // replies and frame lines on their way to out_
    uint64_t dropped_ = 0;             // frame lines and replies that did not fit out_
    uint32_t watched_ = 0;             // the events fd_ is watched for (0: not watched)
};

// A pseudo-terminal for one bus, its slave reached through a symbolic link. When the client closes
// the slave, the line makes a fresh pseudo-terminal and moves the link to it atomically, so the next
// client finds a clean line.
class XSlcanPty {
public:
    XSlcanPty(XLoop* loop, XHub* hub, unsigned bus, const std::string& link)
        : bus_(bus), link_(link), line_(loop, hub, bus, "serial line " + link) {}
    ~XSlcanPty();
    // Makes the first pseudo-terminal and the link; false with the reason in *why.
    bool Start(std::string* why);

private:
    bool Renew(std::string* why);

    unsigned bus_;
    std::string link_;
    XSlcanLine line_;
};

// A TCP port for one bus (pyserial's socket:// URLs): one client at a time; another that connects
// meanwhile is closed at once.
class XSlcanTcp {
public:
    XSlcanTcp(XLoop* loop, XHub* hub, unsigned bus, const std::string& address)
        : loop_(loop), bus_(bus), address_(address), line_(loop, hub, bus, "serial line tcp " + address) {}
    ~XSlcanTcp();
    // Listens on address ("PORT", or "ADDR:PORT" as --listen takes it; 127.0.0.1 when only a port).
    bool Start(std::string* why);

private:
    void Accept();

    XLoop* loop_;
    unsigned bus_;
    std::string address_;
    int listen_ = -1;
    XSlcanLine line_;
};

// Parses a --slcan or --slcan-tcp value "WHERE=CH" (CH 0 or 1). Example: "/tmp/ttyVEXLO0=1".
bool ParseSlcanOption(const std::string& value, std::string* where, unsigned* bus);

}  // namespace vexlo_serve
