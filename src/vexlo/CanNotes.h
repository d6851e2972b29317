// The notices of one channel in the order they came among its frames, for vexlo_receive: each
// notice the reception path applied, and each message whose frames a full ring refused, with the
// ring position where it happened (it comes before the frame pushed at that position) and its
// host time. A small lock-free ring with one producer (the reception path) and one consumer at a
// time (under CanDev::fifolck_), ordered as CanFifo is. When it is full the oldest entries are
// kept and the rest counted.
#pragma once

#include <atomic>

#include "utils.h"

struct CanNote {
    U32 pos;       // the frame ring's write count when it happened
    U32 stamp;     // the adapter's stamp
    U64 host_us;   // its host time
    U8 code;       // 1, 2, 4, 8, 16 as in CAN_ERR; CAN_NOTE_LOST: frames refused by a full ring
    U8 data[3];    // the notice's data bytes (record bytes 7..9)
};

enum : U8 { CAN_NOTE_LOST = 0 };

class CanNotes {
public:
    enum : U32 { kCap = 64 };

    // Producer: false (and counted) when the ring is full.
    bool Push(const CanNote& n) {
        const U32 wr = wr_.load(std::memory_order_relaxed);
        if (wr - rd_.load(std::memory_order_acquire) >= kCap) {
            dropped_.store(dropped_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
            return false;
        }
        buf_[wr % kCap] = n;
        wr_.store(wr + 1, std::memory_order_release);
        return true;
    }

    // Consumer: the oldest entry, left in place; false when there is none.
    bool Peek(CanNote* n) const {
        const U32 rd = rd_.load(std::memory_order_relaxed);
        if (wr_.load(std::memory_order_acquire) == rd) return false;
        *n = buf_[rd % kCap];
        return true;
    }
    // Consumer: removes the oldest entry (after a Peek that found it).
    void Drop() { rd_.store(rd_.load(std::memory_order_relaxed) + 1, std::memory_order_release); }

    bool Empty() const { return wr_.load(std::memory_order_acquire) == rd_.load(std::memory_order_acquire); }
    // Consumer: entries refused by a full ring since the last call.
    U64 TakeDropped() {
        const U64 d = dropped_.load(std::memory_order_relaxed);
        const U64 n = d - reported_;
        reported_ = d;
        return n;
    }

private:
    CanNote buf_[kCap] = {};
    std::atomic<U32> wr_{0};
    std::atomic<U32> rd_{0};
    std::atomic<U64> dropped_{0};
    U64 reported_ = 0;  // consumer's part of dropped_ already told
};

// The error frame of a note, in the Linux CAN error-frame layout (the table at VEXLO_FRAME in
// vexlo_ext.h): Id the error class, DataLength 8, Data the details, the adapter's stamp.
// Example: code 4 with data 0x19 0x05 0x80 -> Id 0x204, Data 00 30 00 00 00 00 80 05.
void CanNoteFrame(const CanNote& note, CAN_OBJ* obj);
