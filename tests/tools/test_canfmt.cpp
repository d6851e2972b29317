// The pure pieces of the vexlo command, one table per concern.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "CanBitRate.h"
#include "CanFilter.h"
#include "CanFrameText.h"
#include "CanLogLine.h"
#include "CanStatusText.h"
#include "CanTimeStamp.h"
#include "model/SimFilter.h"

using namespace vexlo_tool;

TEST(CanFmt, frame_text_both_ways) {
    struct Row {
        const char* text;
        const char* error = nullptr;    // null: parses
        unsigned id = 0, ext = 0, rtr = 0, len = 0;
        const char* compact = nullptr;  // FormatFrame of the result
        const char* line = nullptr;     // FormatFrameLine("can0", ...), or null
    };
    const Row rows[] = {
        {"123#DEADBEEF", nullptr, 0x123, 0, 0, 4, "123#DEADBEEF", "  can0  123   [4]  DE AD BE EF"},
        {"12345678#11.22.33", nullptr, 0x12345678, 1, 0, 3, "12345678#112233", "  can0  12345678   [3]  11 22 33"},
        {"123#R", nullptr, 0x123, 0, 1, 0, "123#R", "  can0  123   [0]  remote request"},
        {"0000001A#R5", nullptr, 0x1A, 1, 1, 5, "0000001A#R5", nullptr},
        {"123#", nullptr, 0x123, 0, 0, 0, "123#", "  can0  123   [0] "},
        {"7ff#0102030405060708", nullptr, 0x7FF, 0, 0, 8, "7FF#0102030405060708", nullptr},
        {"123DEAD", "no '#' between identifier and data"},
        {"12#00", "identifier needs 3 or 8 hex digits"},
        {"800#00", "standard identifier above 7FF"},
        {"20000000#00", "extended identifier above 1FFFFFFF"},
        {"12G#00", "identifier is not hex"},
        {"123#DEA", "data must be pairs of hex digits"},
        {"123#D.EA", "data must be pairs of hex digits"},
        {"123#001122334455667788", "more than 8 data bytes"},
        {"123#R9", "remote length must be one digit 0 to 8"},
        {"123##1", "CAN FD frames are not supported"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.text);
        CAN_OBJ f;
        std::string error;
        ASSERT_EQ(ParseFrame(r.text, &f, &error), r.error == nullptr);
        if (r.error) {
            EXPECT_EQ(error, r.error);
            continue;
        }
        EXPECT_EQ(std::vector<unsigned>({f.Id, f.ExtendedFrame, f.RemoteFrame, f.DataLength}),
                  std::vector<unsigned>({r.id, r.ext, r.rtr, r.len}));
        EXPECT_EQ(FormatFrame(f), r.compact);
        if (r.line) {
            EXPECT_EQ(FormatFrameLine("can0", f), r.line);
        }
    }
}

TEST(CanFmt, bit_rate_to_timing_and_back) {
    struct Row {
        const char* text;
        int b0 = 0, b1 = 0;           // -1: refused
        const char* error = nullptr;  // message when refused
    };
    const Row rows[] = {
        {"1M", 0x00, 0x14}, {"800k", 0x00, 0x16}, {"500k", 0x00, 0x1C}, {"250k", 0x01, 0x1C},
        {"125k", 0x03, 0x1C}, {"100k", 0x04, 0x1C}, {"50k", 0x09, 0x1C}, {"20k", 0x18, 0x1C},
        {"10k", 0x31, 0x1C},
        {"83.333k", 0x03, 0x6F},  // 24 quanta of 4 prescaled clocks, segments 16 and 7
        {"950k", -1, -1, "bit rate 950000 cannot be reached within 1% at 16 MHz; nearest rates: 888889, 1000000"},
        {"2M", -1, -1, "bit rate 2000000 cannot be reached within 1% at 16 MHz; nearest rates: 1000000"},
        {"4000", -1, -1, "bit rate 4000 cannot be reached within 1% at 16 MHz; nearest rates: 5000"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.text);
        unsigned rate = 0;
        ASSERT_TRUE(ParseBitRate(r.text, &rate));
        unsigned char b0 = 0, b1 = 0;
        std::string error;
        ASSERT_EQ(TimingForRate(rate, &b0, &b1, &error), r.b0 >= 0);
        if (r.b0 < 0) {
            EXPECT_EQ(error, r.error);
            continue;
        }
        EXPECT_EQ(b0, r.b0);
        EXPECT_EQ(b1, r.b1);
        EXPECT_NEAR(RateForTiming(b0, b1), rate, rate * 0.0001);
    }
    unsigned rate = 0;
    for (const char* bad : {"fast", "0", "500x", ""}) EXPECT_FALSE(ParseBitRate(bad, &rate)) << bad;
    unsigned char b0 = 0, b1 = 0;
    EXPECT_TRUE(ParseTimingBytes("03:1c", &b0, &b1));
    EXPECT_EQ(b0 * 256 + b1, 0x031C);
    for (const char* bad : {"3:1C", "03-1C", "0x:1C", "03:1C0"}) EXPECT_FALSE(ParseTimingBytes(bad, &b0, &b1)) << bad;
}

namespace {

CAN_OBJ Frame(unsigned id, bool ext, bool rtr) {
    CAN_OBJ f = {};
    f.Id = id;
    f.ExtendedFrame = ext;
    f.RemoteFrame = rtr;
    f.DataLength = 2;
    f.Data[0] = 0x5A;
    f.Data[1] = 0xA5;
    return f;
}

}  // namespace

TEST(CanFmt, filters_and_acceptance_fit) {
    // Software filters: which of four frames pass.
    const CAN_OBJ probe[] = {Frame(0x123, false, false), Frame(0x124, false, false),
                             Frame(0x1000123, true, false), Frame(0x123, false, true)};
    struct Pass {
        const char* filter;
        bool pass[4];
    };
    const Pass passes[] = {
        {"123:7FF", {true, false, true, true}},    {"123:C00007FF", {true, false, false, false}},
        {"123~7FF", {false, true, false, false}},  {"01000123:1FFFFFFF", {false, false, true, false}},
        {"0:0", {true, true, true, true}},
    };
    for (const Pass& p : passes) {
        CanFilter f;
        std::string error;
        ASSERT_TRUE(ParseFilter(p.filter, &f, &error)) << p.filter;
        for (int i = 0; i < 4; ++i) EXPECT_EQ(FilterPasses({f}, probe[i]), p.pass[i]) << p.filter << " frame " << i;
    }
    CanFilter bad;
    std::string error;
    for (const char* text : {"123", "12Z:7FF", "123:123456789"}) EXPECT_FALSE(ParseFilter(text, &bad, &error)) << text;
    // The channel list of a dump: channels, their filters, and what is refused.
    std::vector<ChannelFilters> list;
    ASSERT_TRUE(ParseChannelList("can1,0:123:7FF,456~7FF,1", &list, &error));
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].channel * 10 + list[0].filters.size(), 10u);
    EXPECT_EQ(list[1].channel * 10 + list[1].filters.size(), 2u);
    EXPECT_TRUE(list[1].filters[1].inverse);
    for (const char* text : {"2", "123:7FF,0", "0,", "0:1:2:3"}) EXPECT_FALSE(ParseChannelList(text, &list, &error)) << text;

    // The acceptance filter: the settings, then against the controller's model (SimFilter), every
    // frame the filters pass is accepted, and of the selected type nothing else.
    struct Fit {
        std::vector<const char*> filters;
        bool fits = false, single = false;
        uint32_t code = 0, mask = 0;
        int type = 0;  // frames compared exactly: 0 standard, 1 extended, 2 both
    };
    const Fit fits[] = {
        {{}, true, false, 0, 0xFFFFFFFF, 2},
        {{"0:0", "123:7FF"}, true, false, 0, 0xFFFFFFFF, 2},
        {{"123:C00007FF"}, true, true, 0x24600000, 0x000FFFFF, 0},
        {{"123:C00007FF", "456:C00007FF"}, true, false, 0x24608AC0, 0x000F000F, 0},
        {{"12345678:9FFFFFFF"}, true, true, 0x91A2B3C0, 0x00000007, 1},
        {{"12340000:9FFFE000", "0ABC0000:9FFFE000"}, true, false, 0x91A055E0, 0, 1},
        {{"123:7FF"}, false},
        {{"123~C00007FF"}, false},
        {{"12345678:9FFFFFFF", "12345679:9FFFFFFF"}, false},
        {{"1:C00007FF", "2:C00007FF", "3:C00007FF"}, false},
    };
    for (const Fit& fit : fits) {
        std::vector<CanFilter> filters;
        std::vector<uint32_t> ids = {0, 0x7FF, 0x1FFFFFFF};
        for (const char* text : fit.filters) {
            CanFilter f;
            ASSERT_TRUE(ParseFilter(text, &f, &error));
            filters.push_back(f);
            for (uint32_t flip : {0u, 1u, 0x400u, 0x2000u, 0x10000000u}) ids.push_back((f.id & 0x1FFFFFFF) ^ flip);
        }
        std::string name = fit.filters.empty() ? "none" : fit.filters[0];
        AcceptanceFilter af;
        ASSERT_EQ(FitAcceptance(filters, &af), fit.fits) << name;
        if (!fit.fits) {
            EXPECT_EQ(af.mask, 0xFFFFFFFFu) << name;
            continue;
        }
        EXPECT_EQ(af.single, fit.single) << name;
        EXPECT_EQ(af.code, fit.code) << name;
        EXPECT_EQ(af.mask, fit.mask) << name;
        vexlo_sim::SimFilter hw;
        hw.Set(af.code, af.mask, af.single);
        for (uint32_t id : ids) {
            for (int ext = 0; ext < 2; ++ext) {
                for (int rtr = 0; rtr < 2; ++rtr) {
                    CAN_OBJ f = Frame(ext ? id : id & 0x7FF, ext, rtr);
                    vexlo_sim::SimFrame s;
                    s.id = f.Id;
                    s.ext = ext;
                    s.rtr = rtr;
                    s.dlc = 2;
                    memcpy(s.data, f.Data, 2);
                    bool soft = FilterPasses(filters, f), hard = hw.Accepts(s);
                    if (soft || fit.type == 2 || fit.type == ext) {
                        EXPECT_EQ(hard, soft) << name << " id " << std::hex << f.Id << " ext " << ext;
                    }
                }
            }
        }
    }
}

TEST(CanFmt, time_stamps_across_wrap_and_drift) {
    const uint64_t H = 1700000000000000ull;
    struct Step {
        uint32_t stamp;
        uint64_t host, expect;
    };
    const std::vector<std::vector<Step>> runs = {
        // across the wrap: 32 ticks later, read 1.8 ms late, 3 us of slew
        {{0xFFFFFFF0u, H, H}, {0x10u, H + 5000, H + 3203}},
        // a fast adapter clock: 1 s of stamps in 0.999 s of host time, held at the host time
        {{0, H, H}, {10000, H + 999000, H + 999000}, {20000, H + 1998000, H + 1998000}},
        // a slow adapter clock: 1 s of stamps in 1.002 s, pulled forward by 1 ms per second
        {{0, H, H}, {10000, H + 1002000, H + 1001000}, {20000, H + 2004000, H + 2002000}},
        // a stamp before the previous one (the other channel's queue) never goes backwards
        {{500, H, H}, {600, H + 10000, H + 10000}, {590, H + 10100, H + 10000}},
        // three wraps of silence (and a stamp older than the anchor of a batch maps to before it)
        {{100, H, H}, {150, H + (3 * (1ull << 32) + 50) * 100, H + (3 * (1ull << 32) + 50) * 100}},
        {{90, H + 100000, H + 99000}, {100, H + 100000, H + 100000}},
    };
    for (size_t i = 0; i < runs.size(); ++i) {
        XStampClock clock;
        if (i == 5) clock.Anchor(100, H + 100000);  // the newest stamp of a first batch
        for (const Step& s : runs[i]) EXPECT_EQ(clock.Convert(s.stamp, s.host), s.expect) << "run " << i;
    }
}

TEST(CanFmt, log_lines_both_ways) {
    struct Row {
        const char* line;
        const char* error = nullptr;
        uint64_t us = 0;
        const char* channel = nullptr;
        const char* frame = nullptr;
    };
    const Row rows[] = {
        {"(1700000000.123456) can1 123#DEADBEEF", nullptr, 1700000000123456ull, "can1", "123#DEADBEEF"},
        {"(1700000000.500000) vcan0 12345678#R T", nullptr, 1700000000500000ull, "vcan0", "12345678#R"},
        {"(12.5)  can0   123#", nullptr, 12500000, "can0", "123#"},
        {"1700000000.1 can0 123#00", "bad time stamp '1700000000.1'"},
        {"(17.x) can0 123#", "bad time stamp '(17.x)'"},
        {"(1.0) can0", "needs (SECONDS.MICROS) NAME FRAME"},
        {"(1.0) can0 123#0", "frame '123#0': data must be pairs of hex digits"},
        {"(1.0) can0 123#00 X", "unexpected text after the frame"},
    };
    for (const Row& r : rows) {
        LogLine l;
        std::string error;
        ASSERT_EQ(ParseLogLine(r.line, &l, &error), r.error == nullptr) << r.line;
        if (r.error) {
            EXPECT_EQ(error, r.error);
            continue;
        }
        EXPECT_EQ(l.time_us, r.us);
        EXPECT_EQ(l.channel, r.channel);
        EXPECT_EQ(FormatFrame(l.frame), r.frame);
    }
    CAN_OBJ f = Frame(0x1ABCDE, true, false);
    f.DataLength = 0;
    EXPECT_EQ(FormatLogLine(1700000000123456ull, "can0", f), "(1700000000.123456) can0 001ABCDE#");
    EXPECT_EQ(FormatLogLine(5, "can1", Frame(0x123, false, true)), "(0000000000.000005) can1 123#R2");
    EXPECT_EQ(std::vector<int>({LogChannelNumber("can1"), LogChannelNumber("vcan0"), LogChannelNumber("x")}),
              std::vector<int>({1, 0, -1}));
}

TEST(CanFmt, controller_status_in_words) {
    EXPECT_EQ(ErrorStateText(0xC0, 0, 0) + ", " + ErrorStateText(0x40, 0, 128) + ", " + ErrorStateText(0x40, 96, 0) +
                  ", " + ErrorStateText(0x00, 10, 20),
              "bus-off, error passive, error warning, error active");
    EXPECT_EQ(ErrorCodeText(0xD9), "other error while transmitting, in the acknowledge slot");
    EXPECT_EQ(ErrorCodeText(0x42), "form error while transmitting, in the identifier bits 28-21");
    EXPECT_EQ(ErrorCodeText(0xBF), "stuff error while receiving, in segment 0x1F");
    EXPECT_EQ(VersionText(0x0318), "3.18");
}
