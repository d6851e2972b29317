// Bit rates from the timing registers, and frame lengths on the wire.
#include <gtest/gtest.h>

#include "model/SimBitTiming.h"

using namespace vexlo_sim;

TEST(SimBitTiming, timing_pairs_give_their_rates) {
    struct Row {
        uint8_t t0, t1;
        uint32_t rate;
    };
    const Row rows[] = {{0x00, 0x14, 1000000}, {0x00, 0x16, 800000}, {0x00, 0x1C, 500000},
                        {0x01, 0x1C, 250000},  {0x03, 0x1C, 125000}, {0x04, 0x1C, 100000},
                        {0x09, 0x1C, 50000},   {0x18, 0x1C, 20000},  {0x31, 0x1C, 10000},
                        {0xC0, 0x94, 1000000}};  // jump width and triple sampling change nothing
    for (const Row& r : rows)
        EXPECT_EQ(SimBitTiming::BitRate(r.t0, r.t1), r.rate) << std::hex << int(r.t0) << " " << int(r.t1);
}

TEST(SimBitTiming, frame_bits_follow_header_and_data) {
    struct Row {
        bool ext, rtr;
        uint8_t dlc;
        unsigned bits;
    };
    const Row rows[] = {{false, false, 0, 47},  {false, false, 8, 111}, {true, false, 8, 131},
                        {true, true, 8, 67},    // remote frames carry no data
                        {true, false, 15, 131}};  // a length code above 8 still carries eight bytes
    for (const Row& r : rows) {
        SimFrame f;
        f.ext = r.ext;
        f.rtr = r.rtr;
        f.dlc = r.dlc;
        EXPECT_EQ(SimBitTiming::FrameBits(f), r.bits) << r.ext << r.rtr << int(r.dlc);
    }
    EXPECT_EQ(SimBitTiming::Duration(47, 1000000), 47000u);  // ns: the ceiling is 21277 frames/s
}
