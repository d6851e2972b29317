// One socketcand client: its socket, its protocol state and its place on a bus of the hub.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "BcmMode.h"
#include "Command.h"
#include "ControlMode.h"
#include "Hub.h"
#include "Loop.h"
#include "OutQueue.h"
#include "RawMode.h"
#include "Text.h"

namespace vexlo_serve {

// A connection reads commands, answers them and hands the client's frames to the hub; the hub's
// frames go out through the current mode (raw: every frame, BCM: what the client subscribed).
// Input is read only while the hub takes the client's frames and its answers have room, so a
// client that floods the server waits in TCP instead of growing memory. Frames that do not fit in
// the output (a slow reader) are dropped, counted and logged for this client alone. Everything
// the connection starts (timers, jobs, its place in the hub) ends with it.
//
// Closing: the answers already queued still go out, for as long as the client keeps taking them
// (kLingerUs at most without progress); the frames the client sent still go to the bus. Then the
// connection ends once the client has ended its side too (or after kLingerUs).
class XConnection : public XHubClient {
public:
    // Bytes of frames waiting for a client before frames are dropped.
    static const size_t kOutLimit = 256 * 1024;
    // How long a closing connection waits for the client to take more of its output, or to end.
    static const uint64_t kLingerUs = 2000000;

    XConnection(XLoop* loop, XHubAccess* hub, const std::vector<std::string>* bus_names, int fd, std::string peer,
                std::function<void(XConnection*)> done);
    ~XConnection() override;
    // Writes "< hi >" and starts reading.
    void Begin();
    // Ends the connection: an error reply first when `error` is not empty; "why" goes to the log.
    void Close(const std::string& why, const std::string& error = std::string());

    // For the modes.
    XLoop* loop() { return loop_; }
    XHubAccess* hub() { return hub_; }
    // True once the connection ends: its jobs have stopped and must not start again.
    bool closing() const { return closing_ || destroyed_; }
    void Reply(const std::string& text);
    void Error(const std::string& text) { Reply("< error " + text + " >"); }
    // Text the client did not ask for just now (statistics): dropped when the output is full.
    void Notify(const std::string& text);
    // A frame for the client: dropped and counted when the output is full.
    void Emit(const VEXLO_FRAME& f);
    // Sends the output now (or once the socket takes it), unless held.
    void Flush();
    // Holds frames back until Flush(true); answers still go out.
    void Hold(bool hold) { hold_ = hold; }
    // Queues a frame on the bus; false (with a reply) when the hub refuses it for good; sets the
    // connection waiting when the client's transmit queue is full (the frame is then retried).
    bool Send(const CAN_OBJ& frame, bool retry_when_full);

    // XHubClient
    void OnFrames(const VEXLO_FRAME* frames, unsigned count) override;
    void OnRefused(const CAN_OBJ& frame) override;
    void OnRoom() override;
    void OnGone() override;

private:
    enum Mode { kNoBus, kBcm, kRaw, kControl };
    void OnEvents(uint32_t events);
    void ReadInput(uint32_t events);
    void Process();
    void Handle(const XCommand& cmd);
    // < BUS B ... > and < BUS C ... > of mode NO_BUS.
    void ConfigureBus(const XCommand& cmd);
    void UpdateWatch();
    // Leaves the hub and ends every job; the connection is closing from now on.
    void Finish(const std::string& why);
    // Writes what the client takes and waits for more room or its end; may Destroy().
    void Linger();
    void Destroy();
    void ReportLoss();

    XLoop* loop_;
    XHubAccess* hub_;
    const std::vector<std::string>* bus_names_;
    int fd_;
    std::string peer_;
    std::function<void(XConnection*)> done_;
    Mode mode_ = kNoBus;
    int bus_ = -1;
    XOutQueue out_;
    std::string input_;  // bytes read and not yet processed (at most one read)
    size_t input_pos_ = 0;
    XCommandReader reader_;
    std::string command_;
    bool waiting_ = false;  // the hub's queue for this client is full
    CAN_OBJ retry_;         // the frame to send again once it has room
    bool hold_ = false;
    bool closing_ = false;
    bool peer_done_ = false;  // the client has ended its side
    bool shut_ = false;       // this side has been shut down
    bool destroyed_ = false;
    uint32_t watched_ = 0;
    XTimer linger_;
    uint64_t lost_ = 0, lost_reported_ = 0;
    XTimer loss_timer_;
    char text_[kEventText];
    XRawMode raw_;
    XBcmMode bcm_;
    XControlMode control_;
};

}  // namespace vexlo_serve
