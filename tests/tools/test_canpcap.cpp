// The capture record of a frame (link type 227), and the capture program's names and filters.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "CanExtcap.h"
#include "CanPcap.h"

using namespace vexlo_tool;

TEST(CanPcap, record_layout) {
    struct Row {
        const char* what;
        unsigned id, ext, rtr, len, error;
        std::vector<uint8_t> record;  // 16 bytes
    };
    // Every frame carries the data bytes 11 22 ... 88.
    const Row rows[] = {
        {"standard", 0x123, 0, 0, 3, 0, {0, 0, 1, 0x23, 3, 0, 0, 0, 0x11, 0x22, 0x33, 0, 0, 0, 0, 0}},
        {"extended", 0x12345678, 1, 0, 8, 0,
         {0x92, 0x34, 0x56, 0x78, 8, 0, 0, 0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88}},
        {"standard id cut to 11 bits", 0xFFFFF801, 0, 0, 0, 0, {0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"remote keeps its length, no data", 0x7FF, 0, 1, 2, 0, {0x40, 0, 7, 0xFF, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"extended remote", 0x1F, 1, 1, 0, 0, {0xC0, 0, 0, 0x1F, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"length code 13: 8 bytes, the code in byte 7", 0x100, 0, 0, 13, 0,
         {0, 0, 1, 0, 8, 0, 0, 13, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88}},
        {"error frame", 0x204, 0, 0, 8, 1,
         {0x20, 0, 2, 4, 8, 0, 0, 0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.what);
        VEXLO_FRAME f;
        std::memset(&f, 0, sizeof(f));
        f.frame.Id = r.id;
        f.frame.ExtendedFrame = static_cast<unsigned char>(r.ext);
        f.frame.RemoteFrame = static_cast<unsigned char>(r.rtr);
        f.frame.DataLength = static_cast<unsigned char>(r.len);
        for (int i = 0; i < 8; ++i) f.frame.Data[i] = static_cast<unsigned char>(0x11 * (i + 1));
        f.flags = r.error ? VEXLO_FRAME_ERROR : 0;
        uint8_t out[kSocketCanRecordSize];
        EncodeSocketCan(f, out);
        EXPECT_EQ(std::vector<uint8_t>(out, out + sizeof(out)), r.record);
    }
    uint32_t sec = 0, frac = 0;
    PcapStamp(1700000000123456ull, false, &sec, &frac);
    EXPECT_EQ(std::vector<uint32_t>({sec, frac}), std::vector<uint32_t>({1700000000u, 123456u}));
    PcapStamp(1700000000123456ull, true, &sec, &frac);
    EXPECT_EQ(std::vector<uint32_t>({sec, frac}), std::vector<uint32_t>({1700000000u, 123456000u}));
}

TEST(CanPcap, extcap_names_and_filters) {
    unsigned a = 99, ch = 99;
    EXPECT_EQ(ExtcapInterfaceName(12, 1), "vexlo12can1");
    ASSERT_TRUE(ParseExtcapInterface("vexlo12can1", &a, &ch));
    EXPECT_EQ(std::vector<unsigned>({a, ch}), std::vector<unsigned>({12, 1}));
    for (const char* bad : {"vexlo0can2", "vexlo00can1", "vexlo32can0", "vexlocan0", "vexlo0can", "can0", "vexlo0can01"})
        EXPECT_FALSE(ParseExtcapInterface(bad, &a, &ch)) << bad;

    std::vector<VEXLO_FILTER> list;
    std::string error;
    ASSERT_TRUE(ParseFilterList(" 123:C00007FF,\t12345678~1FFFFFFF 0:0 ", &list, &error));
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(std::vector<unsigned>({list[0].id, list[1].id, list[1].inverse, list[2].mask}),
              std::vector<unsigned>({0x123, 0x12345678, 1, 0}));
    EXPECT_TRUE(ParseFilterList("", &list, &error) && list.empty());
    EXPECT_FALSE(ParseFilterList("123:7FF,12G:7FF", &list, &error));
    EXPECT_EQ(error, "bad filter '12G:7FF': filter identifier and mask must be hex, at most 8 digits");
}
