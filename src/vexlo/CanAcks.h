// Ties each answer that arrives on the command IN endpoint (0x81) to the exchange that asked for it.
//
// The adapter answers every command packet and every frame packet once, in the order it got them,
// and byte 1 of a command's answer repeats the command's code. The answer to a frame packet carries
// no code the library knows; any byte 1 that is no command code is taken as one. Two things the
// protocol does not tell: whether an answer that did not come within its wait will still come, and
// which of two exchanges with the same code an answer belongs to.
//
// So every exchange that gave up waiting is remembered as owed (oldest first, at most kMaxOwed):
// its answer may still come, and it would come ahead of any later exchange's. An answer is matched
// to the oldest exchange that can own it, owed ones first; owed exchanges passed over are taken as
// never answered, and one that nothing can own counts as the oldest owed one's. When the exchange
// waiting now could own the answer as well (same code as the owed one), the answer is held: a
// second such answer within the wait, or one more wait, is the waiting exchange's own; if none
// comes the held answer is (the owed one was never answered) and nothing is owed any more.
//
// Guarded by the command IN transfer's lock; no allocation after construction.
#pragma once

#include "utils.h"

class CanAcks {
public:
    enum : int {
        kFrames = 0x100,  // the kind of a frame packet's exchange; a command's kind is its code
        kNone = -2,       // no exchange waits: every answer that comes now is a late one
        kMaxOwed = 8,
        kMaxWaiting = 8,
    };
    enum Verdict { kOurs, kStale, kHeld };
    struct Ack {
        U8 bytes[64];
        U32 size;
        int Code() const { return size >= 2 ? bytes[1] : -1; }
    };

    void Reset() { owed_ = waiting_ = head_ = 0; }
    // An answer arrived; the oldest waiting one is lost if kMaxWaiting are already waiting.
    void Push(const U8* data, U32 size);
    // The oldest answer not yet judged.
    bool Pop(Ack* out);
    // What an answer is to the exchange of `kind` waiting now; stale and held answers settle the
    // owed exchanges they answer.
    Verdict Judge(int kind, const Ack& ack);
    // The exchange of `kind` gave up waiting.
    void Owe(int kind);
    // A held answer was taken as the waiting exchange's own: nothing before it will still come.
    void Forgive() { owed_ = 0; }
    int Owed() const { return owed_; }

private:
    static bool Fits(int kind, int code);
    void Settle(int n);

    int owed_ = 0;
    int kinds_[kMaxOwed];
    int waiting_ = 0;
    int head_ = 0;
    Ack ring_[kMaxWaiting];
};
