// Bit timing and frame lengths.
#include <gtest/gtest.h>

#include "model/SimBitTiming.h"

using namespace vexlo_sim;

TEST(SimBitTiming, common_timing_pairs_give_their_rates) {
    struct Pair {
        uint8_t t0, t1;
        uint32_t rate;
    };
    const Pair pairs[] = {{0x00, 0x14, 1000000}, {0x00, 0x16, 800000}, {0x00, 0x1C, 500000},
                          {0x01, 0x1C, 250000},  {0x03, 0x1C, 125000}, {0x04, 0x1C, 100000},
                          {0x09, 0x1C, 50000},   {0x18, 0x1C, 20000},  {0x31, 0x1C, 10000}};
    for (const Pair& p : pairs)
        EXPECT_EQ(SimBitTiming::BitRate(p.t0, p.t1), p.rate) << std::hex << int(p.t0) << " " << int(p.t1);
}

TEST(SimBitTiming, sync_jump_width_and_sampling_do_not_change_the_rate) {
    EXPECT_EQ(SimBitTiming::BitRate(0xC0, 0x94), SimBitTiming::BitRate(0x00, 0x14));
}

TEST(SimBitTiming, frame_bits_follow_header_and_data) {
    SimFrame f;
    EXPECT_EQ(SimBitTiming::FrameBits(f), 47u);
    f.dlc = 8;
    EXPECT_EQ(SimBitTiming::FrameBits(f), 111u);
    f.ext = true;
    EXPECT_EQ(SimBitTiming::FrameBits(f), 131u);
    f.rtr = true;  // remote frames carry no data
    EXPECT_EQ(SimBitTiming::FrameBits(f), 67u);
    f.rtr = false;
    f.dlc = 15;  // a length code above 8 still carries eight bytes
    EXPECT_EQ(SimBitTiming::FrameBits(f), 131u);
}

TEST(SimBitTiming, ceiling_at_one_megabit_is_21277_frames_per_second) {
    SimFrame f;
    uint64_t ns = SimBitTiming::Duration(SimBitTiming::FrameBits(f), 1000000);
    EXPECT_EQ(ns, 47000u);
    EXPECT_EQ(static_cast<unsigned>(1e9 / ns + 0.5), 21277u);
}
