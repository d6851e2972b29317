// Acceptance filter in single and dual filter mode.
#include <gtest/gtest.h>

#include "model/SimFilter.h"

using namespace vexlo_sim;

namespace {
SimFrame Std(uint32_t id, uint8_t dlc = 0, uint8_t d0 = 0, uint8_t d1 = 0) {
    SimFrame f;
    f.id = id;
    f.dlc = dlc;
    f.data[0] = d0;
    f.data[1] = d1;
    return f;
}
SimFrame Ext(uint32_t id) {
    SimFrame f;
    f.id = id;
    f.ext = true;
    return f;
}
}  // namespace

TEST(SimFilter, open_filter_accepts_everything) {
    SimFilter flt;
    flt.Set(0, 0xFFFFFFFF, true);
    EXPECT_TRUE(flt.Accepts(Std(0x123)));
    EXPECT_TRUE(flt.Accepts(Ext(0x1ABCDEF0)));
    flt.Set(0, 0xFFFFFFFF, false);
    EXPECT_TRUE(flt.Accepts(Std(0x7FF)));
}

TEST(SimFilter, single_mode_standard_matches_identifier_rtr_and_two_data_bytes) {
    SimFilter flt;
    // ACR0/ACR1 = 0x123 << 5 (id bits 31..21), RTR 0; data bytes must be 0xAA 0x55.
    flt.Set((0x123u << 21) | 0xAA55, 0x000F0000, true);
    EXPECT_TRUE(flt.Accepts(Std(0x123, 2, 0xAA, 0x55)));
    EXPECT_FALSE(flt.Accepts(Std(0x122, 2, 0xAA, 0x55)));
    EXPECT_FALSE(flt.Accepts(Std(0x123, 2, 0xAA, 0x56)));
    SimFrame rtr = Std(0x123);
    rtr.rtr = true;
    EXPECT_FALSE(flt.Accepts(rtr));
    // A frame without data bytes cannot fail the data comparison.
    EXPECT_TRUE(flt.Accepts(Std(0x123, 0)));
    // Masking the low identifier bit lets both 0x122 and 0x123 through.
    flt.Set((0x123u << 21), 0x002FFFFF, true);
    EXPECT_TRUE(flt.Accepts(Std(0x122, 8)));
    EXPECT_FALSE(flt.Accepts(Std(0x121, 8)));
}

TEST(SimFilter, single_mode_extended_matches_29_bits) {
    SimFilter flt;
    flt.Set(0x12345678u << 3, 0x3, true);
    EXPECT_TRUE(flt.Accepts(Ext(0x12345678)));
    EXPECT_FALSE(flt.Accepts(Ext(0x12345679)));
    EXPECT_FALSE(flt.Accepts(Std(0x123)));
}

TEST(SimFilter, dual_mode_either_filter_passes) {
    SimFilter flt;
    // Filter 1: id 0x100 (ACR0 + ACR1 high nibble), any data byte; filter 2: id 0x200.
    uint32_t code = (0x100u << 21) | ((0x200u << 5) & 0xFFE0);
    uint32_t mask = 0x000F000F;  // data byte of filter 1 free, RTR bits compared
    flt.Set(code, mask, false);
    EXPECT_TRUE(flt.Accepts(Std(0x100, 1, 0x77)));
    EXPECT_TRUE(flt.Accepts(Std(0x200)));
    EXPECT_FALSE(flt.Accepts(Std(0x300)));
}

TEST(SimFilter, dual_mode_extended_compares_the_top_16_identifier_bits) {
    SimFilter flt;
    uint32_t top = (0x12345678u >> 13) & 0xFFFF;
    flt.Set((top << 16) | 0x0000, 0x0000FFFF & 0, false);
    EXPECT_TRUE(flt.Accepts(Ext(0x12345678)));
    EXPECT_TRUE(flt.Accepts(Ext(0x12345678 ^ 0x1FFF)));   // low 13 bits are not compared
    EXPECT_FALSE(flt.Accepts(Ext(0x12345678 ^ 0x2000)));
}
