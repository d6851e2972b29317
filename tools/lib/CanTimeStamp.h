// The adapter's frame time stamps turned into host time.
#pragma once

#include <cstdint>

namespace vexlo_tool {

// The adapter stamps each received frame with a 32-bit count of 100 us units, which wraps after
// about 4.97 days and runs on its own crystal. XStampClock maps the stamps of one adapter onto
// the host clock (microseconds since the Epoch):
// - anchored at the first frame: that frame gets the host time it was read at;
// - unwrapped: of all values stamp + k x 2^32, the one nearest the host clock's elapsed time is
//   taken, so any number of wraps and any silence between frames is handled;
// - drift corrected: a result never runs ahead of the host time the frame was read at (a fast
//   adapter clock pulls the mapping back) and never goes below the previous result; a slow adapter
//   clock is pulled forward by at most 1 ms per second of stamps.
// Example: Convert(1000, T) = T; then Convert(1010, T + 1000) = T + 1000, and
// Convert(0, T + 2000) after a stamp of 0xFFFFFFF6 at T + 1000 is T + 2000 (across the wrap).
//
// Frames read in one batch were stamped before they were read: anchor the clock with the newest
// stamp of the first batch (Anchor), so that the older ones map to earlier host times.
class XStampClock {
public:
    uint64_t Convert(uint32_t stamp, uint64_t host_us);
    // Anchors the clock so that `stamp` maps to host_us; no effect once anchored.
    void Anchor(uint32_t stamp, uint64_t host_us);

    bool anchored_ = false;
    int64_t anchor_ticks_ = 0;  // unwrapped ticks of the first frame
    uint64_t anchor_host_ = 0;  // host time of the first frame
    int64_t ticks_ = 0;         // unwrapped ticks of the latest frame
    int64_t offset_us_ = 0;     // host time minus adapter time, as now corrected
    uint64_t last_ = 0;         // the latest result
};

}  // namespace vexlo_tool
