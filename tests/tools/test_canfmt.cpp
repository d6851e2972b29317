// The pure pieces of the vexlo command, one table per concern.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "CanBitRate.h"
#include "CanFilter.h"
#include "CanFrameText.h"
#include "CanLogLine.h"
#include "CanStatusText.h"
#include "CanNumber.h"

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

TEST(CanFmt, numbers_and_bit_rates_as_typed) {
    struct Row {
        const char* text;
        double min, max;
        bool whole;
        double value;  // -1: refused
    };
    const Row rows[] = {
        {"12", 1, 100, true, 12},      {"0.5", 0, 10, false, 0.5}, {".25", 0, 1, false, 0.25},
        {"100", 1, 100, true, 100},    {"101", 1, 100, true, -1},  {"0", 1, 100, true, -1},
        {"1.5", 0, 10, true, -1},      {"", 0, 10, false, -1},     {"1.2.3", 0, 10, false, -1},
        {" 5", 0, 10, false, -1},      {"0x10", 0, 100, false, -1}, {"nan", 0, 10, false, -1},
    };
    for (const Row& r : rows) {
        double v = -1;
        std::string range;
        EXPECT_EQ(ParseBounded(r.text, r.min, r.max, r.whole, &v, &range), r.value >= 0) << r.text;
        EXPECT_EQ(v, r.value) << r.text;
    }

    struct Rate {
        const char* text;
        unsigned rate;  // 0: refused
    };
    for (const Rate& r : {Rate{"1M", 1000000}, Rate{"83.333k", 83333}, Rate{"47619", 47619}, Rate{"800K", 800000},
                          Rate{"fast", 0}, Rate{"0", 0}, Rate{"500x", 0}, Rate{"", 0}, Rate{"1e6", 0}, Rate{"101M", 0}}) {
        unsigned rate = 0;
        EXPECT_EQ(ParseBitRate(r.text, &rate), r.rate != 0) << r.text;
        EXPECT_EQ(rate, r.rate) << r.text;
    }
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

TEST(CanFmt, candump_filters_into_library_filters) {
    struct Row {
        const char* text;
        unsigned id, mask;
        int extended, remote, inverse;
    };
    const Row rows[] = {
        {"123:7FF", 0x123, 0x7FF, -1, -1, 0},
        {"123:C00007FF", 0x123, 0x7FF, 0, 0, 0},
        {"40000123:C00007FF", 0x123, 0x7FF, 1, 1, 0},  // 8 digits: extended, as in candump
        {"12345678:9FFFFFFF", 0x12345678, 0x1FFFFFFF, 1, -1, 0},
        {"12345678:1FFFFFFF", 0x12345678, 0x1FFFFFFF, -1, -1, 0},
        {"80000123:80000000", 0x123, 0, 1, -1, 0},
        {"123~7FF", 0x123, 0x7FF, -1, -1, 1},
    };
    for (const Row& r : rows) {
        VEXLO_FILTER f;
        std::string error;
        ASSERT_TRUE(ParseFilter(r.text, &f, &error)) << r.text;
        EXPECT_EQ(std::vector<int>({int(f.id), int(f.mask), f.extended, f.remote, f.inverse}),
                  std::vector<int>({int(r.id), int(r.mask), r.extended, r.remote, r.inverse}))
            << r.text;
    }
    VEXLO_FILTER bad;
    std::string error;
    for (const char* text : {"123", "12Z:7FF", "123:123456789"}) EXPECT_FALSE(ParseFilter(text, &bad, &error)) << text;
    // The channel list of a dump: channels, their filters, and what is refused.
    std::vector<ChannelFilters> list;
    ASSERT_TRUE(ParseChannelList("can1,0:123:7FF,456~7FF,1", &list, &error));
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].channel * 10 + list[0].filters.size(), 10u);
    EXPECT_EQ(list[1].channel * 10 + list[1].filters.size(), 2u);
    EXPECT_EQ(list[1].filters[1].inverse, 1);
    for (const char* text : {"2", "123:7FF,0", "0,", "0:1:2:3"}) EXPECT_FALSE(ParseChannelList(text, &list, &error)) << text;
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
        {"(1.0) can0 A0000000#", "frame '80000000#': extended identifier above 1FFFFFFF"},
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
        EXPECT_FALSE(l.error) << r.line;
    }
    CAN_OBJ f = Frame(0x1ABCDE, true, false);
    f.DataLength = 0;
    EXPECT_EQ(FormatLogLine(1700000000123456ull, "can0", f), "(1700000000.123456) can0 001ABCDE#");
    EXPECT_EQ(FormatLogLine(5, "can1", Frame(0x123, false, true)), "(0000000000.000005) can1 123#R2");
    // Error frames as candump logs them: read back with their class, written with the flag.
    LogLine passive;
    std::string error;
    ASSERT_TRUE(ParseLogLine("(1.0) can0 20000204#0030000000008000", &passive, &error));
    EXPECT_TRUE(passive.error);
    EXPECT_EQ(FormatFrame(passive.frame, true), "20000204#0030000000008000");
    CAN_OBJ overrun = Frame(0x004, false, false);
    overrun.DataLength = 8;
    EXPECT_EQ(FormatLogLine(5, "can0", overrun, true), "(0000000000.000005) can0 20000004#5AA5000000000000");
    EXPECT_EQ(FormatFrameLine("can0", overrun, true), "  can0  20000004   [8]  5A A5 00 00 00 00 00 00   ERRORFRAME");
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
    // The error frames of the adapter's notices in candump's words.
    struct Notice {
        unsigned id;
        std::vector<unsigned char> data;
        const char* text;
    };
    const Notice notices[] = {
        {0x004, {0, 0x01}, "controller-problem{rx-overflow}"},
        {0x004, {0, 0x0C}, "controller-problem{rx-error-warning,tx-error-warning}"},
        {0x204, {0, 0x30, 0, 0, 0, 0, 128, 7},
         "controller-problem{rx-error-passive,tx-error-passive},error-counter-tx-rx{{128}{7}}"},
        {0x002, {9}, "lost-arbitration{at bit 9}"},
        {0x088, {}, "protocol-violation,bus-error"},
    };
    for (const Notice& n : notices) {
        CAN_OBJ f = {};
        f.Id = n.id;
        std::copy(n.data.begin(), n.data.end(), f.Data);
        EXPECT_EQ(ErrorFrameText(f), n.text);
    }
}
