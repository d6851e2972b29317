// The adapter as every subcommand uses it: open (with the reason in words when that fails),
// initialise and start channels, send, read its status, wait while watching for a stop or an
// unplug, reset and close. The calls that wait for the adapter are made through an XCaller, so an
// unplug is noticed within a second, whatever call it comes in.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "Caller.h"
#include "Options.h"
#include "vexlo.h"
#include "vexlo_ext.h"

namespace vexlo_tool {

// The device type passed to every VCI_* call: two channels.
const unsigned kDevType = 4;

// The usual reason why frames stay in the adapter: said after each message about it.
extern const char kAckHint[];

// An open adapter. The destructor resets the channels it started and closes the adapter.
class XAdapter {
public:
    explicit XAdapter(const CommonOptions& common) : common_(common) {}
    ~XAdapter() { Close(); }
    // kExitOk, or kExitFail after saying why: "adapter DEV is in use by another program", "no
    // adapter at position DEV", the permission text, or "cannot open adapter DEV".
    int Open();
    // Initialises the channel with the common timing and the acceptance filter the library fits
    // to `filters` (none: every frame), then starts it. *exact (when not null) tells whether the
    // adapter passes exactly the frames the filters pass; if not, check each with
    // vexlo_filter_pass.
    bool Start(unsigned channel, const std::vector<VEXLO_FILTER>& filters = {}, bool* exact = nullptr);
    // Offers `n` frames to the channel; *took gets how many the adapter took (the rest wait for
    // another offer). False when the adapter is gone.
    bool Transmit(unsigned channel, const CAN_OBJ* frames, unsigned n, unsigned* took);
    // Offers the frames again and again until the adapter takes at least one; *took gets how many
    // it took. False when the adapter is gone, on a stop signal, or when it took none for a
    // second: a full transmit buffer that does not drain, as on a bus where no other node
    // acknowledges. That is said once: "the adapter refused every frame on channel CH for a
    // second" followed by kAckHint.
    bool Offer(unsigned channel, const CAN_OBJ* frames, unsigned n, unsigned* took);
    // The channel's controller status, a controller register (VCI_GetReference), the board
    // information; false when the call fails or the adapter is gone (Present() tells which).
    bool Status(unsigned channel, CAN_STAT* status);
    bool Register(unsigned channel, unsigned char reg, unsigned char* value);
    bool BoardInfo(CAN_INFO* info);
    // Waits until mono_us (CLOCK_MONOTONIC microseconds) or a stop signal, taking and throwing
    // away the frames that the started channels receive meanwhile, so that a subcommand that only
    // sends or counts never lets a receive queue fill. False when the adapter is gone.
    bool Pause(uint64_t mono_us);
    // True once the channel's transmit buffer is empty (status bit 2) or on a stop signal; false
    // after a second, or when the adapter is gone.
    bool WaitSent(unsigned channel);
    // False, after saying "adapter DEV was unplugged" (once), when the adapter is gone.
    bool Present();
    // Takes the adapter as gone (vexlo_receive said so), saying it once.
    void MarkGone();
    bool gone() const { return gone_; }
    void Close();
    unsigned dev() const { return common_.dev; }

private:
    // Makes a library call through caller_: its result, or 0 when the adapter is gone first
    // (then said once).
    unsigned Call(const std::function<unsigned()>& call);

    XCaller caller_;
    CommonOptions common_;
    bool open_ = false;
    bool gone_ = false;
    bool started_[2] = {false, false};
};

}  // namespace vexlo_tool
