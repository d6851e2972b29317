#include "CanTiming.h"

namespace {

const U64 kQuantumClock = 8000000;  // 16 MHz over the fixed factor 2 of the prescaler
const U32 kMinQuanta = 8, kMaxQuanta = 25;
const U32 kMinTseg2 = 2, kMaxTseg2 = 8, kMaxTseg1 = 16, kMaxBrp = 64;

struct Usual {
    U32 rate;
    U8 btr0, btr1;
};
const Usual kUsual[] = {{1000000, 0x00, 0x14}, {800000, 0x00, 0x16}, {500000, 0x00, 0x1C},
                        {250000, 0x01, 0x1C},  {125000, 0x03, 0x1C}, {100000, 0x04, 0x1C},
                        {50000, 0x09, 0x1C},   {20000, 0x18, 0x1C},  {10000, 0x31, 0x1C}};

// One candidate setting: prescaler p = BRP + 1, n quanta, sampled after s = 1 + TSEG1 of them.
// Fractions are compared cross-multiplied, so that no rounding decides between two settings.
struct Setting {
    U64 p, n, s;
    U64 SpMiss() const { return s * 8 > n * 7 ? s * 8 - n * 7 : n * 7 - s * 8; }  // over 8n
    U64 RateMiss(U64 rate) const {                                                // over rate p n
        U64 got = rate * p * n;
        return got > kQuantumClock ? got - kQuantumClock : kQuantumClock - got;
    }
};

// True when a is the better of the two for `rate`.
bool Better(const Setting& a, const Setting& b, U64 rate) {
    U64 sa = a.SpMiss() * b.n, sb = b.SpMiss() * a.n;
    if (sa != sb) return sa < sb;
    U64 ea = a.RateMiss(rate) * b.p * b.n, eb = b.RateMiss(rate) * a.p * a.n;
    if (ea != eb) return ea < eb;
    if (a.n != b.n) return a.n > b.n;
    return a.s * b.n < b.s * a.n;
}

U32 Rounded(U64 pn) { return static_cast<U32>((kQuantumClock + pn / 2) / pn); }

}  // namespace

bool CanTimingForRate(U32 rate, U8* btr0, U8* btr1, U32* below, U32* above) {
    for (const Usual& u : kUsual) {
        if (u.rate == rate) {
            *btr0 = u.btr0;
            *btr1 = u.btr1;
            return true;
        }
    }
    const U64 r = rate;
    bool found = false;
    Setting best = {0, 0, 0};
    U64 below_pn = 0, above_pn = 0;  // products p n of the nearest exact rates under and over
    for (U64 n = kMinQuanta; n <= kMaxQuanta; ++n) {
        for (U64 p = 1; p <= kMaxBrp; ++p) {
            const U64 pn = p * n;
            if (kQuantumClock < r * pn && (below_pn == 0 || pn < below_pn)) below_pn = pn;
            if (kQuantumClock > r * pn && pn > above_pn) above_pn = pn;
            for (U64 t2 = kMinTseg2; t2 <= kMaxTseg2; ++t2) {
                if (t2 + 2 > n || n - 1 - t2 > kMaxTseg1) continue;  // TSEG1 from 1 to 16
                Setting c = {p, n, n - t2};
                if (100 * c.RateMiss(r) > r * pn) continue;
                if (rate > 800000 && (c.s * 4 < n * 3 || c.s * 8 > n * 7)) continue;
                if (!found || Better(c, best, r)) best = c;
                found = true;
            }
        }
    }
    if (found) {
        *btr0 = static_cast<U8>(best.p - 1);
        *btr1 = static_cast<U8>(((best.n - best.s - 1) << 4) | (best.s - 2));
        return true;
    }
    *below = below_pn ? Rounded(below_pn) : 0;
    *above = above_pn ? Rounded(above_pn) : 0;
    return false;
}

void CanRateForTiming(U8 btr0, U8 btr1, U32* rate, U32* permille) {
    const U64 p = (btr0 & 0x3Fu) + 1, t1 = (btr1 & 0x0Fu) + 1, t2 = ((btr1 >> 4) & 0x07u) + 1;
    const U64 n = 1 + t1 + t2;
    *rate = Rounded(p * n);
    *permille = static_cast<U32>((1000 * (1 + t1) + n / 2) / n);
}
