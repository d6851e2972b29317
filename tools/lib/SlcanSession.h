// One serial-line CAN client's session: the state of its line (open, time stamps, status flags)
// and the answers to its commands. Bytes in, reply bytes out; the channel is reached through an
// XSlcanPort, so the session runs the same over a pseudo-terminal, TCP or a test.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "SlcanText.h"
#include "vexlo_ext.h"

namespace vexlo_tool {

// What the adapter tells about itself on the line: "V", "v" and "N".
struct SlcanIdentity {
    unsigned short hw_version = 0;  // as the board information gives it: 0x0210 is 2.10
    unsigned short fw_version = 0;
    std::string serial;
};

// What a line needs of its channel.
class XSlcanPort {
public:
    virtual ~XSlcanPort() = default;
    // The channel's configuration now (timing, acceptance code, mask, filter mode).
    virtual CAN_INIT Config() = 0;
    // Reconfigures the channel for every client; false when another client has the channel open
    // or the adapter refused the setting (the channel then keeps its configuration).
    virtual bool Configure(const CAN_INIT& init) = 0;
    // Queues a frame for transmission: kBusy when the channel cannot take it yet (the line then
    // waits, see XSlcanSession::waiting), kRefused when it never will.
    enum SendResult { kSent, kBusy, kRefused };
    virtual SendResult Send(const CAN_OBJ& frame) = 0;
    // The line joins (true) or leaves the channel's traffic; false when it cannot join (the
    // adapter is gone).
    virtual bool SetOpen(bool open) = 0;
};

// Commands follow the Lawicel set with CR for success and BEL for an error, tolerant of what real
// clients send: "O" or "L" on an open line and "C" on a closed one are answered CR. "S", "s",
// "M" and "m" are taken on a closed line only; asking for the configuration the channel already
// has is answered CR at once, any other goes to XSlcanPort::Configure. "L" opens without
// transmitting: the channel itself keeps acknowledging, as its other clients need. A sent frame
// is answered "z" (standard) or "Z" (extended) and CR, as the original devices do, once the
// channel has queued it. "F" reports the flags of the error frames received since the last "F"
// and clears them. An open line also gets the error state lines of the Linux kernel's slcan
// driver (FormatSlcanErrorState) and "e1O" for each sent frame the adapter did not take; other
// clients skip lines they do not know.
class XSlcanSession {
public:
    XSlcanSession(XSlcanPort* port, const SlcanIdentity& identity) : port_(port), identity_(identity) {}
    // The client's bytes; the replies are appended to *out. Commands run in order until a frame
    // finds the channel busy: the rest wait for Resume.
    void Input(const char* data, size_t len, std::string* out);
    // Runs the commands that waited for the channel.
    void Resume(std::string* out);
    // Commands wait for the channel: take no more input until Resume has run them.
    bool waiting() const { return next_ < commands_.size(); }
    // A frame (or error frame) of the channel; its line, while the line is open, appended to *out.
    void Received(const VEXLO_FRAME& frame, std::string* out);
    // Frames the client was too slow to take: raises the data overrun flag.
    void Lost() { flags_ |= 0x08; }
    // A frame the adapter did not take after all: raises the transmit flag (bit 1); an open line
    // gets "e1O" (a transmit overrun to the kernel's slcan, which counts it as a transmit error).
    void Refused(std::string* out);
    // Leaves the channel (the client went away, or the channel is gone).
    void End();
    bool open() const { return open_; }

private:
    // Runs one command; false when it must wait for the channel.
    bool Run(const SlcanCommand& c, std::string* out);
    bool Reconfigure(const CAN_INIT& init);

    XSlcanPort* port_;
    SlcanIdentity identity_;
    XSlcanSplitter splitter_;
    std::vector<SlcanCommand> commands_;
    size_t next_ = 0;  // the first command of commands_ not run yet
    bool open_ = false;
    bool listen_only_ = false;
    bool stamps_ = false;
    unsigned flags_ = 0;
    char state_ = 'a';  // the error state the line last reported: 'a', 'w' or 'p'
};

}  // namespace vexlo_tool
