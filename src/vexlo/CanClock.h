// Host time of received records: the adapter's stamps (32-bit counts of 100 us since it was
// powered, on its own crystal, wrapping after about 4.97 days) mapped onto host microseconds since
// the Epoch. A pure model, one per device: the reception path reads the host clock once per
// completion and hands it over with the newest stamp the completion brought (Begin), then asks
// for each record's time (Map).
//
// host = offset + adapter time. The offset follows the lower envelope of (completion time -
// adapter time): a record is never later than the completion that brought it, so a completion
// whose newest record would be later moves the offset down at once; an adapter clock that runs
// slow leaves the records ever earlier, so the offset rises towards the completion at a bounded
// rate (kRiseUsPerS). A gap beyond kJumpUs either way (the adapter restarted its count, the wall
// clock was stepped, days of silence with a drifting crystal) resyncs: the newest record gets the
// completion's time, as the first completion's records do, keeping the adapter's spacing.
// On each channel the times never decrease, except after a resync that finds the host clock
// stepped back behind the times already given.
#pragma once

#include "utils.h"

class CanClock {
public:
    enum : U32 {
        kUnitUs = 100,        // one adapter count
    };
    static const long long kJumpUs = 1000000;  // a gap this large is a jump: resync
    static const long long kRiseUsPerS = 1000; // how fast the offset may rise: 1 ms per second

    CanClock();

    // One completion: `host` is the host clock read when it was handled, `newest` the stamp of
    // its newest record. The stamp is unwrapped to the count nearest the host clock's elapsed time
    // since the previous completion, over any number of wraps.
    void Begin(U64 host, U32 newest);

    // The host time of a record of the current completion with adapter stamp `stamp` on channel
    // `ch` (0 or 1): within [the channel's last time, the completion's time].
    U64 Map(U32 stamp, unsigned ch) {
        long long t = base_ + static_cast<long long>(static_cast<int32_t>(stamp - ref_)) * kUnitUs;
        U64 h = t < 0 ? 0 : static_cast<U64>(t);
        if (h > now_) h = now_;
        if (h < floor_[ch]) h = floor_[ch];
        floor_[ch] = h;
        return h;
    }

    // The host clock now, microseconds since the Epoch (0 when it cannot be read).
    static U64 HostNow();

private:
    bool synced_;
    long long count_;   // the newest stamp so far, unwrapped: adapter counts since it was powered
    U64 host_;          // the host time of the completion that brought it
    long long offset_;  // host us = offset_ + count * kUnitUs
    // The current completion: its time, its newest stamp and that stamp's host time.
    U64 now_;
    U32 ref_;
    long long base_;
    U64 floor_[2];      // the last time given on each channel
};
