// Counters of one channel, behind vexlo_get_stats. Each counter has one writer at a time: the
// reception path (one completion delivered at a time) or VCI_Transmit (under cmdlck_). So a count
// is advanced with a relaxed load and store, not a locked read-modify-write, and a reader, which
// loads without a lock, never sees it go down.
#pragma once

#include <atomic>

#include "utils.h"

struct CanStats {
    std::atomic<U64> rx_frames{0};   // frames queued
    std::atomic<U64> rx_lost{0};     // frames refused by a full queue
    std::atomic<U64> tx_frames{0};   // frames the adapter accepted for transmission
    std::atomic<U64> notices[5] = {};  // notices by code 1, 2, 4, 8, 16
    std::atomic<U32> queue_peak{0};  // highest queue depth seen
};

// Adds n to a counter that only the calling thread (or the holder of its lock) writes.
inline void CanCount(std::atomic<U64>* c, U64 n) {
    c->store(c->load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
}
