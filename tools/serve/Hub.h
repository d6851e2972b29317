// The hub: one adapter shared by every client of the server, whatever its protocol.
//
// Contract for a front end (a socketcand connection, a serial line, ...):
// - A client implements XHubClient and joins one bus (0: can0, 1: can1) with Join(). All calls to
//   the hub and all callbacks happen on the event loop's thread; a callback may call Leave() or
//   Send() (also for itself), and a client that left is never called again.
// - OnFrames delivers, in order, every frame of the bus with its host time: the frames the
//   adapter received (VEXLO_FRAME as vexlo_receive gives it; adapter notices arrive as error
//   frames, flags VEXLO_FRAME_ERROR) and the frames other clients of the same bus sent, once the
//   adapter accepted them (flags 0, host time of the acceptance). A client never gets its own
//   frames back, as with sockets on one Linux CAN interface.
// - Send() queues a frame for the joined bus and returns at once; the transmit thread hands it to
//   the adapter. A frame the adapter does not take comes back through OnRefused. Each client has
//   its own bounded queue (kTxQueue frames counted until their result is known): Send returns kFull
//   when it is full, and OnRoom follows once it has room again, so a client that reads its input
//   only while Send has room never holds more than that. Clients take turns frame slice by slice.
// - The hub never waits for a client. A client bounds its own output (XOutQueue): a frame that
//   does not fit is the client's to count and report; it never slows the others.
// - A client that ends (its peer closed) calls Release() instead of Leave(): the frames it queued
//   still go out, as a socket's do after close, and reach the other clients; the hub never calls
//   the client again, which may be freed at once.
// - When the adapter is unplugged every client gets OnGone, after it has already been removed from
//   its bus (no Leave needed); the hub closes the adapter and tries to open it again every second.
//   Until then Join returns false. Stop() removes every client without a callback.
// - The hub never waits for the adapter on the loop's thread: an unplugged adapter is closed, and
//   the transmission in progress waited for, on a thread of its own.
// - A client that stays in place through an unplug (a CAN interface) asks WhenBack to be told
//   once the adapter is open again, before any of its frames is delivered, and joins again there.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Loop.h"
#include "Transmitter.h"
#include "vexlo.h"
#include "vexlo_ext.h"

namespace vexlo_serve {

class XHubClient {
public:
    virtual ~XHubClient() = default;
    virtual void OnFrames(const VEXLO_FRAME* frames, unsigned count) = 0;
    virtual void OnRefused(const CAN_OBJ& frame) = 0;
    virtual void OnRoom() {}
    virtual void OnGone() = 0;
};

// What an interface's statistics count: frames (and their data bytes) received from the bus and
// transmitted by the adapter, since the server started.
struct XBusCounters {
    uint64_t rx_frames = 0, rx_bytes = 0, tx_frames = 0, tx_bytes = 0;
};

// The calls a client makes, as XHub below answers them; a stand-in without an adapter (the fuzz
// target's) answers the same calls under the same contract.
class XHubAccess {
public:
    enum SendResult { kQueued, kFull, kNotJoined, kListenOnly };
    virtual ~XHubAccess() = default;
    virtual bool Join(XHubClient* client, unsigned bus) = 0;
    virtual void Leave(XHubClient* client) = 0;
    virtual void Release(XHubClient* client) = 0;
    virtual SendResult Send(XHubClient* client, const CAN_OBJ& frame) = 0;
    virtual const XBusCounters& counters(unsigned bus) const = 0;
    virtual const CAN_INIT& Config(unsigned bus) const = 0;
    virtual bool Configure(XHubClient* client, unsigned bus, const CAN_INIT& init) = 0;
    virtual bool Busy(const XHubClient* client, unsigned bus) const = 0;
    virtual bool present() const = 0;
    virtual bool listen_only() const = 0;
};

struct XHubOptions {
    unsigned dev = 0;
    unsigned char btr0 = 0x00, btr1 = 0x1C;  // 500 kbit/s
    bool listen_only = false;
};

class XHub : public XHubAccess {
public:
    static const unsigned kBuses = 2;
    static const unsigned kTxQueue = 64;
    // Released clients whose frames may wait at once (each at most kTxQueue); the frames of
    // another are dropped, with a log line.
    static const unsigned kReleased = 64;
    XHub(XLoop* loop, const XHubOptions& options);
    ~XHub() override { Stop(); }
    // Opens the adapter and starts both channels; false with the reason in *why.
    bool Start(std::string* why);
    // Removes every client (no callback), resets the channels and closes the adapter.
    void Stop();
    bool present() const override { return open_; }

    bool Join(XHubClient* client, unsigned bus) override;
    void Leave(XHubClient* client) override;
    // Leaves the bus; the client's queued frames are still sent (those the adapter refuses are
    // counted in the log).
    void Release(XHubClient* client) override;
    SendResult Send(XHubClient* client, const CAN_OBJ& frame) override;
    const XBusCounters& counters(unsigned bus) const override { return counters_[bus]; }
    // The bus's channel configuration: as the options start it, or as Configure last set it.
    const CAN_INIT& Config(unsigned bus) const override { return config_[bus]; }
    // Restarts the bus's channel with `init` for every client, also after the adapter comes
    // back; only while no client other than `client` has joined the bus. False when another has,
    // or when the adapter refuses it (the channel then restarts with its previous configuration).
    // ListenOnly is taken from `init` unless the server is listen-only; the hub refuses the frames
    // of a listen-only bus (kListenOnly).
    bool Configure(XHubClient* client, unsigned bus, const CAN_INIT& init) override;
    // True when a client other than `client` has joined the bus.
    bool Busy(const XHubClient* client, unsigned bus) const override;
    bool listen_only() const override { return options_.listen_only; }
    unsigned dev() const { return options_.dev; }
    // Runs `task` each time the adapter is open again after an unplug.
    void WhenBack(std::function<void()> task) { back_.push_back(std::move(task)); }

private:
    struct Member {
        unsigned bus;
        uint64_t queue;
        bool full = false;  // Send said kFull: OnRoom is owed
    };
    bool OpenAdapter(std::string* why);
    // Stops reception and transmission; closes the adapter here, or on a thread of its own when
    // it was unplugged (the close then waits for answers that never come).
    void CloseAdapter(bool unplugged);
    void Receive(unsigned bus);
    void ArmNotices();
    void Results();
    void Deliver(unsigned bus, const VEXLO_FRAME* frames, unsigned count, XHubClient* except);
    void Gone();
    void Tick();

    XLoop* loop_;
    XHubOptions options_;
    XTransmitter tx_;
    bool open_ = false;
    bool started_ = false;
    int fds_[kBuses] = {-1, -1};
    XTimer tick_;
    std::unordered_map<XHubClient*, Member> members_;
    std::unordered_map<uint64_t, uint64_t> released_;  // queues of released clients -> frames refused
    std::vector<XHubClient*> order_[kBuses];  // members of each bus, in the order they joined
    XBusCounters counters_[kBuses];
    CAN_INIT config_[kBuses];
    std::vector<VEXLO_FRAME> buf_;
    std::vector<XTransmitter::Result> results_;
    std::thread closer_;
    std::atomic<bool> closed_{true};  // the closer has finished
    std::vector<std::function<void()>> back_;
};

}  // namespace vexlo_serve
