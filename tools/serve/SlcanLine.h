// Serial-line CAN (Lawicel, SLCAN) clients of the hub: each line serves one bus to one client at a
// time, on a pseudo-terminal reached through a symbolic link, or on a TCP port.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Address.h"
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
    // Output held for a client that reads too slowly: received frames beyond kOutLimit are
    // dropped, counted and flagged. Replies are never dropped: while the output has no room for
    // another frame the line reads nothing from the client, so the pseudo-terminal or TCP holds it
    // back, and one read's replies stay within a few times kReadSize beyond the limit.
    static const size_t kOutLimit = 64 * 1024;
    static const size_t kReadSize = 4096;
    static const size_t kFrameLineMax = 32;  // an extended frame of 8 bytes with a time stamp, CR

    XSlcanLine(XLoop* loop, XHub* hub, unsigned bus, const std::string& name);
    ~XSlcanLine() override { Detach(); }
    // Serves a new client on `fd` (non-blocking, owned by the line from now on) with a fresh
    // session. `on_hangup` runs when the client goes away, after the line has let go of fd.
    void Attach(int fd, std::function<void()> on_hangup);
    // Ends the client's session and closes its descriptor.
    void Detach();
    // Takes what the client wrote before it went away, then ends its session as Detach does and
    // runs on_hangup.
    void Finish();
    bool attached() const { return fd_ >= 0; }
    int fd() const { return fd_; }

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
    bool Full() const { return out_.size() + kFrameLineMax > kOutLimit; }
    void Events(uint32_t events);
    // Writes what the client's output holds; false when the client is gone.
    bool Write();
    void Hangup();
    void Flush(bool frame);
    void Watch();

    XLoop* loop_;
    XHub* hub_;
    unsigned bus_;
    std::string name_;
    int fd_ = -1;
    std::function<void()> on_hangup_;
    vexlo_tool::XSlcanSession session_;
    XOutQueue out_{kOutLimit};
    std::string text_;         // replies and frame lines on their way to out_
    uint64_t dropped_ = 0;     // received frames that did not fit out_
    uint64_t refused_ = 0;     // frames of the client the adapter did not take
    uint32_t watched_ = 0;     // the events fd_ is watched for (0: not watched)
    bool hung_up_ = false;     // the client hung up: only what it wrote before is left to read
};

// A pseudo-terminal line for one bus, reached through a symbolic link that always names a
// pseudo-terminal nobody has opened yet: the moment a client opens it (the server learns of it
// through inotify), the link moves to a fresh one in one step and the opened one is locked against
// further opens. So every client starts on a line of its own, closed and with nothing queued, and a
// client may reopen the link at once after closing it. A client that opens the link while another
// is served is hung up at once, as on the TCP line.
class XSlcanPty {
public:
    XSlcanPty(XLoop* loop, XHub* hub, unsigned bus, const std::string& link)
        : loop_(loop), bus_(bus), link_(link), line_(loop, hub, bus, "serial line " + link) {}
    ~XSlcanPty();
    // Makes the first pseudo-terminal and the link; false with the reason in *why. Refuses to
    // replace anything at the link's place but a link to a pseudo-terminal that no longer exists
    // (left by a server that was killed).
    bool Start(std::string* why);

private:
    bool MakeFresh(std::string* why);
    void Notified();
    void Opened();

    XLoop* loop_;
    unsigned bus_;
    std::string link_;
    XSlcanLine line_;
    int inotify_ = -1;
    int fresh_ = -1;         // the master of the pseudo-terminal the link names
    int fresh_watch_ = -1;   // its slave's inotify watch
    std::string fresh_slave_;
    bool linked_ = false;    // the link at link_ is ours
};

// A TCP port for one bus (pyserial's socket:// URLs): one client at a time; another that connects
// meanwhile is closed at once, as is a peer outside the allow list.
class XSlcanTcp {
public:
    XSlcanTcp(XLoop* loop, XHub* hub, unsigned bus, const std::string& address, const std::vector<XCidr>& allow)
        : loop_(loop), bus_(bus), address_(address), allow_(allow),
          line_(loop, hub, bus, "serial line tcp " + address) {}
    ~XSlcanTcp();
    // Listens on address ("PORT", or "ADDR:PORT" as --listen takes it; 127.0.0.1 when only a port).
    bool Start(std::string* why);

private:
    void Accept();

    XLoop* loop_;
    unsigned bus_;
    std::string address_;
    std::vector<XCidr> allow_;  // empty: everyone
    int listen_ = -1;
    XSlcanLine line_;
};

// Parses a --slcan or --slcan-tcp value "WHERE=CH" (CH 0 or 1). Example: "/tmp/ttyVEXLO0=1".
bool ParseSlcanOption(const std::string& value, std::string* where, unsigned* bus);

}  // namespace vexlo_serve
