// The adapter's rules as pure pieces: bit timing for a rate and back, and the acceptance filter
// fitted to a filter list, checked against the simulator's own model of the controller's filter.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "CanAccept.h"
#include "CanTiming.h"
#include "model/SimFilter.h"

namespace {

struct Timed {
    bool ok;
    U8 b0, b1;
    U32 below, above, rate, permille;
};

Timed Time(U32 rate) {
    Timed t = {};
    t.ok = CanTimingForRate(rate, &t.b0, &t.b1, &t.below, &t.above);
    if (t.ok) CanRateForTiming(t.b0, t.b1, &t.rate, &t.permille);
    return t;
}

}  // namespace

TEST(CanTiming, usual_rates_keep_their_bytes_and_read_back) {
    const struct { U32 rate; U8 b0, b1; U32 permille; } rows[] = {
        {1000000, 0x00, 0x14, 750}, {800000, 0x00, 0x16, 800}, {500000, 0x00, 0x1C, 875},
        {250000, 0x01, 0x1C, 875},  {125000, 0x03, 0x1C, 875}, {100000, 0x04, 0x1C, 875},
        {50000, 0x09, 0x1C, 875},   {20000, 0x18, 0x1C, 875},  {10000, 0x31, 0x1C, 875},
        {83333, 0x05, 0x1C, 875},  // 6 x 16 quanta
    };
    for (const auto& r : rows) {
        Timed t = Time(r.rate);
        EXPECT_EQ((std::vector<U32>{t.ok, t.b0, t.b1, t.rate, t.permille}),
                  (std::vector<U32>{1, r.b0, r.b1, r.rate, r.permille}))
            << r.rate;
    }
}

// Every rate either gets a setting within 1% with a sample point in the band, or is refused with
// neighbours that work and lie more than 1% away.
TEST(CanTiming, other_rates_come_within_one_percent_or_name_working_neighbours) {
    std::vector<U32> rates = {33333, 40000, 62500, 83333, 95238, 0, 4000, 900000, 950000, 1020000, 2000000};
    for (U32 r = 4900; r < 1015000; r = r + r / 97 + 1) rates.push_back(r);
    for (U32 rate : rates) {
        Timed t = Time(rate);
        if (t.ok) {
            EXPECT_LE(std::fabs(double(t.rate) - rate), rate * 0.01 + 0.5) << rate;
            // 16 quanta sample at 87.5%: first choice wherever a prescaler brings them within 1%.
            bool sixteen = false;
            for (U32 p = 1; p <= 64; ++p) sixteen = sixteen || std::fabs(500000.0 / p - rate) <= rate * 0.01;
            if (rate > 800000) {
                EXPECT_TRUE(t.permille >= 750 && t.permille <= 875) << rate << ": " << t.permille;
            }
            if (sixteen) {
                EXPECT_EQ(t.permille, 875u) << rate;
            }
            EXPECT_EQ(t.b0 & 0xC0, 0) << rate;  // sync jump width 1
            EXPECT_EQ(t.b1 & 0x80, 0) << rate;  // one sample
            continue;
        }
        EXPECT_TRUE((t.below == 0 || t.below < rate * 0.99) && (t.above == 0 || t.above > rate * 1.01)) << rate;
        for (U32 near : {t.below, t.above}) {
            if (near) {
                EXPECT_TRUE(Time(near).ok) << rate << " names " << near;
            }
        }
    }
    Timed t = Time(950000);
    EXPECT_EQ((std::vector<U32>{t.below, t.above}), (std::vector<U32>{888889, 1000000}));
    t = Time(4000);
    EXPECT_EQ((std::vector<U32>{t.below, t.above}), (std::vector<U32>{0, 5000}));
}

namespace {

VEXLO_FILTER F(U32 id, U32 mask, int ext, int rtr, int inverse = 0) {
    VEXLO_FILTER f = {id, mask, static_cast<signed char>(ext), static_cast<signed char>(rtr),
                      static_cast<unsigned char>(inverse), 0};
    return f;
}

// Whether the controller, set as fitted, takes the frame (with data bytes that would spoil any
// data comparison).
bool Hardware(const CanAcceptSetting& s, U32 id, bool ext, bool rtr, U8 data) {
    vexlo_sim::SimFilter flt;
    flt.Set(s.code, s.mask, s.single);
    vexlo_sim::SimFrame f;
    f.id = id;
    f.ext = ext;
    f.rtr = rtr;
    f.dlc = 8;
    for (U8& d : f.data) d = data;
    return flt.Accepts(f);
}

bool List(const std::vector<VEXLO_FILTER>& l, U32 id, bool ext, bool rtr) {
    CAN_OBJ o = {};
    o.Id = id;
    o.ExtendedFrame = ext;
    o.RemoteFrame = rtr;
    return CanFiltersPass(l.data(), static_cast<U32>(l.size()), o);
}

}  // namespace

// Each list's fit passes every frame the list passes, for all 2,048 standard identifiers and a
// sample of extended ones near and far from the filters; an exact fit passes nothing more. The
// measure is the fraction of standard plus that of extended frames the setting lets through.
TEST(CanAccept, fit_passes_all_the_list_passes_and_exact_fits_nothing_more) {
    std::vector<VEXLO_FILTER> many;
    for (U32 id = 0x100; id < 0x10C; ++id) many.push_back(F(id, 0x7FF, 0, 0));
    const std::vector<VEXLO_FILTER> none = {};
    const struct Row {
        const char* what;
        std::vector<VEXLO_FILTER> list;
        bool exact;
        double measure;  // < 0: not checked
    } rows[] = {
        {"empty", none, true, 2},
        {"everything", {F(0, 0, -1, -1)}, true, 2},
        {"one standard data id", {F(0x123, 0x7FF, 0, 0)}, false, std::ldexp(1, -12) + std::ldexp(1, -16)},
        {"two standard ids", {F(0x123, 0x7FF, 0, 0), F(0x456, 0x7FF, 0, 0)}, false, std::ldexp(1, -10)},
        {"standard remote only", {F(0x7FF, 0x7FF, 0, 1)}, false, std::ldexp(1, -12) + std::ldexp(1, -30)},
        {"standard and extended", {F(0x123, 0x7FF, 0, 0), F(0x12345678, 0x1FFFFFFF, 1, 0)}, false,
         std::ldexp(1, -11) + std::ldexp(1, -15)},
        {"one extended id", {F(0x12345678, 0x1FFFFFFF, 1, 0)}, false, std::ldexp(1, -12) + std::ldexp(1, -30)},
        {"extended mask", {F(0x100000, 0x1FF00000, 1, -1)}, false, std::ldexp(1, -8)},
        {"top bit of both formats", {F(0x400, 0x400, 0, -1), F(0x10000000, 0x10000000, 1, -1)}, true, 1},
        {"both formats, low bits", {F(0x123, 0x7FF, -1, -1)}, false, -1},
        {"inverse", {F(0x123, 0x7FF, 0, -1, 1)}, false, 2},
        {"inverse of all", {F(0, 0, -1, -1, 1)}, false, std::ldexp(1, -12) + std::ldexp(1, -30)},
        {"extended only, any id", {F(0, 0, 1, -1)}, false, -1},
        {"two extended prefixes", {F(0x1000000, 0x1FFFE000, 1, -1), F(0x2000000, 0x1FFFE000, 1, -1)}, false, -1},
        {"many", many, false, -1},
    };
    std::mt19937 rng(7);
    for (const Row& r : rows) {
        CanAcceptSetting s;
        bool exact = CanAcceptFit(r.list.data(), static_cast<U32>(r.list.size()), &s);
        EXPECT_EQ(exact, r.exact) << r.what;
        if (r.measure >= 0) {
            EXPECT_DOUBLE_EQ(CanAcceptMeasure(s), r.measure) << r.what;
        }
        std::vector<std::pair<U32, bool>> frames;
        for (U32 id = 0; id < 0x800; ++id) frames.push_back({id, false});
        for (int i = 0; i < 20000; ++i) {
            U32 noise = rng() & 0x1FFFFFFF;
            const VEXLO_FILTER& f = r.list.empty() ? F(0, 0, 1, -1) : r.list[i % r.list.size()];
            frames.push_back({i % 2 ? noise : ((f.id & f.mask) | (noise & ~f.mask)) & 0x1FFFFFFF, true});
        }
        int lost = 0, extra = 0;
        for (const auto& fr : frames) {
            for (bool rtr : {false, true}) {
                U8 data = static_cast<U8>(rng());
                bool want = List(r.list, fr.first, fr.second, rtr), got = Hardware(s, fr.first, fr.second, rtr, data);
                lost += want && !got;
                extra += exact && got && !want;
            }
        }
        EXPECT_EQ(lost, 0) << r.what;
        EXPECT_EQ(extra, 0) << r.what;
    }
}

// The list's own verdict: identifier bits beyond the format never match, inverse filters pass the
// rest, format and remote bit as asked.
TEST(CanAccept, list_passes_frames_as_its_filters_say) {
    const struct { VEXLO_FILTER f; U32 id; bool ext, rtr, pass; } rows[] = {
        {F(0x123, 0x7FF, 0, -1), 0x123, false, true, true},
        {F(0x123, 0x7FF, 0, -1), 0x123, true, false, false},
        {F(0x123, 0x7FF, -1, 0), 0x123, true, true, false},
        {F(0x923, 0xFFF, -1, -1), 0x123, false, false, false},
        {F(0x923, 0xFFF, -1, -1), 0x923, true, false, true},
        {F(0x123, 0x7FF, 0, -1, 1), 0x124, false, false, true},
        {F(0x123, 0x7FF, 0, -1, 1), 0x123, true, false, true},
    };
    for (const auto& r : rows) EXPECT_EQ(List({r.f}, r.id, r.ext, r.rtr), r.pass) << std::hex << r.f.id << " " << r.id;
    const VEXLO_FILTER bad[] = {F(0, 0, 2, -1), F(0, 0, -1, -2), F(0, 0, -1, -1, 2)};
    for (const VEXLO_FILTER& b : bad) EXPECT_FALSE(CanFiltersValid(&b, 1));
    EXPECT_FALSE(CanFiltersValid(nullptr, 1));
}
