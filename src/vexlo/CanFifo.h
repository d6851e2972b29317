// A fixed ring of received frames for one channel: one producer (the reception path, inside USB
// event handling, lock-free) and one consumer at a time (the application, under CanDev::fifolck_).
//
// wr_ and rd_ are free-running counts (wrapping at 2^32); a count selects slot count & (cap_ - 1).
// Push publishes wr_ with release after the slot copy; Pop publishes rd_ with release after its
// copy; each side loads the other's counter with acquire. A full ring refuses new frames: the
// oldest frames win.
//
// Beside each slot the ring keeps the frame's host time of reception (host_), written with the
// slot before wr_ is published; VCI_Receive's Pop leaves it, vexlo_receive's takes it too.
#pragma once

#include <atomic>
#include <vector>

#include "utils.h"

class CanFifo {
public:
    // cap must be a power of two (0 gives a ring that refuses every frame); other values are
    // rounded down to one, so the slot mask stays valid.
    explicit CanFifo(unsigned int cap);
    ~CanFifo();
    CanFifo(const CanFifo&) = delete;
    CanFifo& operator=(const CanFifo&) = delete;

    U32 Size() const {
        return wr_.load(std::memory_order_acquire) - rd_.load(std::memory_order_acquire);
    }

    // Each side keeps its last reading of the other side's counter and loads the shared one
    // only when that reading says full (or empty): the common case touches no other cache line.
    int Push(const CAN_OBJ* obj, U64 host_us = 0) {
        U32 wr = wr_.load(std::memory_order_relaxed);
        if (wr - rdseen_ >= cap_) {
            rdseen_ = rd_.load(std::memory_order_acquire);
            if (wr - rdseen_ >= cap_) return 0;
        }
        buf_[wr & (cap_ - 1)] = *obj;
        host_[wr & (cap_ - 1)] = host_us;
        wr_.store(wr + 1, std::memory_order_release);
        return 1;
    }

    // Takes the oldest frame, and its host time when `host_us` is not null.
    int Pop(CAN_OBJ* obj, U64* host_us = nullptr) {
        U32 rd = rd_.load(std::memory_order_relaxed);
        if (wrseen_ == rd) {
            wrseen_ = wr_.load(std::memory_order_acquire);
            if (wrseen_ == rd) return 0;
        }
        *obj = buf_[rd & (cap_ - 1)];
        if (host_us) *host_us = host_[rd & (cap_ - 1)];
        rd_.store(rd + 1, std::memory_order_release);
        return 1;
    }

    // Producer, filling several slots before publishing them at once: whether the slot of write
    // count `wr` is free; the slot and its host time; then Publish with the count after the last.
    bool Room(U32 wr) {
        if (wr - rdseen_ < cap_) return true;
        rdseen_ = rd_.load(std::memory_order_acquire);
        return wr - rdseen_ < cap_;
    }
    CAN_OBJ* Slot(U32 wr) { return &buf_[wr & (cap_ - 1)]; }
    U64* HostSlot(U32 wr) { return &host_[wr & (cap_ - 1)]; }
    void Publish(U32 wr) { wr_.store(wr, std::memory_order_release); }

    // Producer only: the depth now when it exceeds `peak`, else `peak`. The stale reading of rd_
    // overstates the depth, so rd_ itself is loaded only when that overstatement passes `peak`.
    U32 PeakDepth(U32 peak) {
        U32 wr = wr_.load(std::memory_order_relaxed);
        if (wr - rdseen_ <= peak) return peak;
        rdseen_ = rd_.load(std::memory_order_acquire);
        return wr - rdseen_ > peak ? wr - rdseen_ : peak;
    }

    void Clear() {
        wrseen_ = wr_.load(std::memory_order_acquire);
        rd_.store(wrseen_, std::memory_order_release);
    }

    // For tests of counter wrap-around: start both counters at `count` on an empty ring.
    void Reset(U32 count) {
        wr_.store(count, std::memory_order_relaxed);
        rd_.store(count, std::memory_order_relaxed);
        rdseen_ = wrseen_ = count;
    }

    std::vector<CAN_OBJ> buf_;
    std::vector<U64> host_;
    alignas(64) std::atomic<U32> wr_;
    U32 rdseen_;  // producer's last reading of rd_
    alignas(64) std::atomic<U32> rd_;
    U32 wrseen_;  // consumer's last reading of wr_ (consumers hold fifolck_)
    alignas(64) U32 cap_;
};
