#include "CanClock.h"

#include <time.h>

CanClock::CanClock() : synced_(false), count_(0), host_(0), offset_(0), now_(0), ref_(0), base_(0), floor_{0, 0} {}

U64 CanClock::HostNow() {
    // Read through the vDSO: no system call.
    struct timespec ts;
    if (clock_gettime(CLOCK_REALTIME, &ts) != 0) return 0;
    return static_cast<U64>(ts.tv_sec) * 1000000ULL + static_cast<U64>(ts.tv_nsec) / 1000;
}

void CanClock::Begin(U64 host, U32 newest) {
    const long long elapsed = static_cast<long long>(host - host_);  // negative if the clock went back
    long long count = newest;
    if (synced_) {
        // Of the counts that leave this stamp, the one nearest where the host clock expects it.
        const long long expect = count_ + elapsed / kUnitUs;
        count = expect + static_cast<int32_t>(newest - static_cast<U32>(expect));
    }
    const long long at = static_cast<long long>(host);
    const long long gap = at - (offset_ + count * kUnitUs);  // > 0: the record would be earlier
    if (!synced_ || gap > kJumpUs || gap < -kJumpUs) {
        offset_ = at - count * kUnitUs;
        for (U64& f : floor_) {
            if (f > host) f = 0;  // the host clock was stepped back: times start again from it
        }
    } else if (gap < 0) {
        offset_ += gap;
    } else {
        const long long rise = elapsed > 0 ? elapsed * kRiseUsPerS / 1000000 : 0;
        offset_ += gap < rise ? gap : rise;
    }
    synced_ = true;
    count_ = count;
    host_ = host;
    now_ = host;
    ref_ = newest;
    base_ = offset_ + count * kUnitUs;
}
