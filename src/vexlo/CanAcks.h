// Ties each answer that arrives on the command IN endpoint (0x81) to the exchange that asked for it.
//
// The adapter answers every command packet and every frame packet once, in the order it got them,
// and byte 1 of a command's answer repeats the command's code. The answer to a frame packet carries
// no code the library knows; any byte 1 that is no command code is taken as one. Two things the
// protocol does not tell: whether an answer that did not come within its wait will still come, and
// which of two exchanges of the same kind (the same command code; frame packets among themselves)
// an answer belongs to.
//
// So every exchange that gave up waiting is remembered as owed (oldest first): its answer may still
// come, and it would come ahead of any later exchange's. Two exchanges of the same kind are never
// left open together: an exchange whose kind is owed does not send until that answer has come
// (Clear), so an answer of that kind can only be the owed one's; if it does not come within the
// exchange's own wait, the exchange fails without sending and owes nothing. There is no guessing.
//
// An answer is matched to the oldest exchange whose kind fits its code, owed ones first; owed
// exchanges passed over are taken as never answered (their answers would have come first). One
// that fits no exchange counts as the oldest owed one's, or, with nothing owed, as the waiting
// exchange's (whose caller then reports the wrong code).
//
// An owed exchange expires kExpiryMs after it gave up: an answer later than that is taken as lost,
// so that a truly lost answer holds its kind back for a bounded time only (sooner, when an answer
// to a later exchange of another kind shows that it was lost). An answer that comes later still
// would be taken by the next exchange of its kind; the bound lies well beyond the delays an adapter
// that still works shows (answers a few seconds late, up to 2.5 s after their 1 s wait).
//
// Time is passed in (milliseconds of a monotonic clock). Guarded by the command IN transfer's
// lock; no allocation after construction.
#pragma once

#include "utils.h"

class CanAcks {
public:
    enum : int {
        kFrames = 0x100,  // the kind of a frame packet's exchange; a command's kind is its code
        kNone = -2,       // no exchange waits: every answer that comes now is a late one
        kMaxOwed = 16,    // more than there are kinds: with at most one owed of each, none is lost
        kMaxWaiting = 8,
        kExpiryMs = 5000,
    };
    enum Verdict { kOurs, kStale };
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
    // What an answer is to the exchange of `kind` waiting now; a stale answer settles the owed
    // exchange it answers and those before it.
    Verdict Judge(int kind, const Ack& ack, U64 now);
    // The exchange of `kind` gave up waiting at `now`.
    void Owe(int kind, U64 now);
    // 0 when an exchange of `kind` may send now; else how many ms at most its owed namesake may
    // still be answered in.
    U64 Clear(int kind, U64 now);
    int Owed() const { return owed_; }

private:
    struct Debt {
        int kind;
        U64 since;
    };
    static bool Fits(int kind, int code);
    void Expire(U64 now);
    void Settle(int n);

    int owed_ = 0;
    Debt owes_[kMaxOwed];
    int waiting_ = 0;
    int head_ = 0;
    Ack ring_[kMaxWaiting];
};
