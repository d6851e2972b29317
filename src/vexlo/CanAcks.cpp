#include "CanAcks.h"

#include <cstring>

// The codes of every command the library sends.
static bool IsCommand(int code) {
    switch (code) {
    case 0x01: case 0x03: case 0x04: case 0x06: case 0x0C: case 0x0D:
    case 0x0E: case 0x0F: case 0x12: case 0x13: case 0x14: case 0x15: return true;
    default: return false;
    }
}

bool CanAcks::Fits(int kind, int code) {
    if (code < 0 || kind == kNone) return false;
    return kind == kFrames ? !IsCommand(code) : kind == code;
}

void CanAcks::Push(const U8* data, U32 size) {
    if (waiting_ == kMaxWaiting) {
        head_ = (head_ + 1) % kMaxWaiting;
        --waiting_;
    }
    Ack& a = ring_[(head_ + waiting_) % kMaxWaiting];
    a.size = size < sizeof(a.bytes) ? size : static_cast<U32>(sizeof(a.bytes));
    if (a.size != 0) memcpy(a.bytes, data, a.size);
    ++waiting_;
}

bool CanAcks::Pop(Ack* out) {
    if (waiting_ == 0) return false;
    *out = ring_[head_];
    head_ = (head_ + 1) % kMaxWaiting;
    --waiting_;
    return true;
}

void CanAcks::Settle(int n) {
    for (int i = n; i < owed_; ++i) owes_[i - n] = owes_[i];
    owed_ -= n;
}

void CanAcks::Expire(U64 now) {
    int kept = 0;
    for (int i = 0; i < owed_; ++i)
        if (now - owes_[i].since < kExpiryMs) owes_[kept++] = owes_[i];
    owed_ = kept;
}

CanAcks::Verdict CanAcks::Judge(int kind, const Ack& ack, U64 now) {
    Expire(now);
    const int code = ack.Code();
    int i = 0;
    while (i < owed_ && !Fits(owes_[i].kind, code)) ++i;
    if (i < owed_) {
        Settle(i + 1);
        return kStale;
    }
    if (Fits(kind, code) || (owed_ == 0 && kind != kNone)) {
        owed_ = 0;
        return kOurs;
    }
    if (owed_ != 0) Settle(1);
    return kStale;
}

void CanAcks::Owe(int kind, U64 now) {
    if (owed_ == kMaxOwed) Settle(1);
    owes_[owed_++] = Debt{kind, now};
}

U64 CanAcks::Clear(int kind, U64 now) {
    Expire(now);
    for (int i = 0; i < owed_; ++i)
        if (owes_[i].kind == kind) return owes_[i].since + kExpiryMs - now;
    return 0;
}
