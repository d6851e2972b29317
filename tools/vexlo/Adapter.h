// The adapter as every subcommand uses it: open (with the reason in words when that fails),
// initialise and start channels, wait while watching for a stop or an unplug, reset and close.
#pragma once

#include <cstdint>
#include <vector>

#include "Options.h"
#include "vexlo.h"
#include "vexlo_ext.h"

namespace vexlo_tool {

// The device type passed to every VCI_* call: two channels.
const unsigned kDevType = 4;

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
    CommonOptions common_;
    bool open_ = false;
    bool gone_ = false;
    bool started_[2] = {false, false};
};

}  // namespace vexlo_tool
