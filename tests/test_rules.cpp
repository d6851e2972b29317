// The adapter's rules as pure pieces: bit timing for a rate and back, and the acceptance filter
// fitted to a filter list, checked against the simulator's own model of the controller's filter.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "CanAccept.h"
#include "CanTiming.h"
#include "model/SimFilter.h"

// The usual rates keep their bytes. Any other rate gets a setting within 1% (sampled at 87.5%
// wherever 16 quanta reach it, from 75% to 87.5% above 800 kbit/s), or is refused naming
// neighbours that work and lie more than 1% away.
TEST(CanTiming, rates_get_a_setting_within_one_percent_or_name_working_neighbours) {
    const U32 usual[][3] = {{1000000, 0x0014, 750}, {800000, 0x0016, 800}, {500000, 0x001C, 875}, {250000, 0x011C, 875},
                            {125000, 0x031C, 875},   {100000, 0x041C, 875}, {50000, 0x091C, 875},  {20000, 0x181C, 875},
                            {10000, 0x311C, 875},    {83333, 0x051C, 875}};  // 83333: 6 x 16 quanta
    U8 b0 = 0, b1 = 0;
    U32 lo = 0, hi = 0, got = 0, pm = 0;
    for (const auto& u : usual) {
        ASSERT_TRUE(CanTimingForRate(u[0], &b0, &b1, &lo, &hi)) << u[0];
        CanRateForTiming(b0, b1, &got, &pm);
        EXPECT_EQ((std::vector<U32>{b0 * 256u + b1, got, pm}), (std::vector<U32>{u[1], u[0], u[2]})) << u[0];
    }
    std::vector<U32> rates = {33333, 40000, 62500, 95238, 0, 4000, 900000, 1020000};
    for (U32 r = 4900; r < 1015000; r = r + r / 97 + 1) rates.push_back(r);
    for (U32 r : rates) {
        if (CanTimingForRate(r, &b0, &b1, &lo, &hi)) {
            CanRateForTiming(b0, b1, &got, &pm);
            bool sixteen = false;
            for (U32 p = 1; p <= 64; ++p) sixteen = sixteen || std::fabs(500000.0 / p - r) <= r * 0.01;
            EXPECT_LE(std::fabs(double(got) - r), r * 0.01 + 0.5) << r;
            EXPECT_TRUE(sixteen ? pm == 875 : r <= 800000 || (pm >= 750 && pm <= 875)) << r << ": " << pm;
            EXPECT_EQ((b0 & 0xC0) | (b1 & 0x80), 0) << r;  // sync jump width 1, one sample
            continue;
        }
        EXPECT_TRUE((lo == 0 || lo < r * 0.99) && (hi == 0 || hi > r * 1.01)) << r;
        for (U32 near : {lo, hi}) EXPECT_TRUE(!near || CanTimingForRate(near, &b0, &b1, &got, &pm)) << r << ": " << near;
    }
    EXPECT_FALSE(CanTimingForRate(950000, &b0, &b1, &lo, &hi));
    EXPECT_EQ((std::vector<U32>{lo, hi}), (std::vector<U32>{888889, 1000000}));
}

static VEXLO_FILTER F(U32 id, U32 mask, int ext, int rtr, int inverse = 0) {
    return {id, mask, static_cast<signed char>(ext), static_cast<signed char>(rtr), static_cast<unsigned char>(inverse), 0};
}

// Each list's fit passes every frame the list passes, for all 2,048 standard identifiers and a
// sample of extended ones near and far from the filters, whatever the data bytes; an exact fit
// passes nothing more. The measure (by hand from the register layout) is the fraction of standard
// plus that of extended frames the setting lets through.
TEST(CanAccept, fit_passes_all_the_list_passes_and_exact_fits_nothing_more) {
    std::vector<VEXLO_FILTER> many;
    for (U32 id = 0x100; id < 0x10C; ++id) many.push_back(F(id, 0x7FF, 0, 0));
    auto sh = [](int bits) { return std::ldexp(1.0, -bits); };
    const struct { const char* what; std::vector<VEXLO_FILTER> list; bool exact; double measure; } rows[] = {
        {"empty", {}, true, 2},
        {"everything", {F(0, 0, -1, -1)}, true, 2},
        {"one standard data id", {F(0x123, 0x7FF, 0, 0)}, false, sh(12) + sh(16)},
        {"two standard ids", {F(0x123, 0x7FF, 0, 0), F(0x456, 0x7FF, 0, 0)}, false, sh(10)},
        {"standard remote only", {F(0x7FF, 0x7FF, 0, 1)}, false, sh(12) + sh(30)},
        {"standard and extended", {F(0x123, 0x7FF, 0, 0), F(0x12345678, 0x1FFFFFFF, 1, 0)}, false, sh(11) + sh(15)},
        {"one extended id", {F(0x12345678, 0x1FFFFFFF, 1, 0)}, false, sh(12) + sh(30)},
        {"extended mask", {F(0x100000, 0x1FF00000, 1, -1)}, false, sh(8)},
        {"top bit of both formats", {F(0x400, 0x400, 0, -1), F(0x10000000, 0x10000000, 1, -1)}, true, 1},
        {"both formats, low bits", {F(0x123, 0x7FF, -1, -1)}, false, -1},
        {"inverse", {F(0x123, 0x7FF, 0, -1, 1)}, false, 2},
        {"inverse of all", {F(0, 0, -1, -1, 1)}, false, sh(12) + sh(30)},
        {"two extended prefixes", {F(0x1000000, 0x1FFFE000, 1, -1), F(0x2000000, 0x1FFFE000, 1, -1)}, false,
         sh(11) + sh(15)},
        {"many", many, false, -1},
    };
    std::mt19937 rng(7);
    for (const auto& r : rows) {
        const U32 n = static_cast<U32>(r.list.size());
        CanAcceptSetting s;
        const bool exact = CanAcceptFit(r.list.data(), n, &s);
        EXPECT_EQ(exact, r.exact) << r.what;
        EXPECT_TRUE(r.measure < 0 || CanAcceptMeasure(s) == r.measure) << r.what << ": " << CanAcceptMeasure(s);
        vexlo_sim::SimFilter hw;
        hw.Set(s.code, s.mask, s.single);
        int lost = 0, extra = 0;
        for (U32 i = 0; i < 0x800 + 20000; ++i) {
            const VEXLO_FILTER f = n ? r.list[i % n] : F(0, 0, 1, -1);
            const U32 noise = rng() & 0x1FFFFFFF, near = ((f.id & f.mask) | (noise & ~f.mask)) & 0x1FFFFFFF;
            CAN_OBJ o = {i < 0x800 ? i : i % 2 ? noise : near, 0, 0, 0, 0, static_cast<U8>(i >= 0x800), 0, {0}, {0}};
            for (U8 rtr = 0; rtr < 2; ++rtr) {
                o.RemoteFrame = rtr;
                const U8 d = static_cast<U8>(rng());
                const vexlo_sim::SimFrame h = {o.Id, o.ExtendedFrame != 0, rtr != 0, 8, {d, d, d, d, d, d, d, d}, 0};
                bool want = CanFiltersPass(r.list.data(), n, o), got = hw.Accepts(h);
                lost += want && !got;
                extra += exact && got && !want;
            }
        }
        EXPECT_EQ(lost, 0) << r.what;
        EXPECT_EQ(extra, 0) << r.what;
    }
}

// The list's own verdict: identifier bits beyond the format never match, inverse filters pass the
// rest, format and remote bit as asked; values outside their range are refused.
TEST(CanAccept, list_passes_frames_as_its_filters_say) {
    const struct { VEXLO_FILTER f; U32 id; U8 ext, rtr; bool pass; } rows[] = {
        {F(0x123, 0x7FF, 0, -1), 0x123, 0, 1, true}, {F(0x123, 0x7FF, 0, -1), 0x123, 1, 0, false},
        {F(0x123, 0x7FF, -1, 0), 0x123, 1, 1, false}, {F(0x923, 0xFFF, -1, -1), 0x123, 0, 0, false},
        {F(0x923, 0xFFF, -1, -1), 0x923, 1, 0, true}, {F(0x123, 0x7FF, 0, -1, 1), 0x124, 0, 0, true},
        {F(0x123, 0x7FF, 0, -1, 1), 0x123, 1, 0, true}};  // inverse: the other format passes
    for (const auto& r : rows)
        EXPECT_EQ(CanFiltersPass(&r.f, 1, CAN_OBJ{r.id, 0, 0, 0, r.rtr, r.ext, 0, {0}, {0}}), r.pass) << r.id;
    for (const VEXLO_FILTER& b : {F(0, 0, 2, -1), F(0, 0, -1, -2), F(0, 0, -1, -1, 2)}) EXPECT_FALSE(CanFiltersValid(&b, 1));
    EXPECT_FALSE(CanFiltersValid(nullptr, 1));
}
