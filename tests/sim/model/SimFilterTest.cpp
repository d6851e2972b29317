// The acceptance filter, one frame against one setting per row: data bytes, the remote bit, masked
// identifier bits and the frame format. Dual mode and extended identifiers are compared against
// the vexlo command's filter fit over many identifiers (test_canfmt).
#include <gtest/gtest.h>

#include "model/SimFilter.h"

using namespace vexlo_sim;

TEST(SimFilter, settings_accept_exactly_their_frames) {
    struct Row {
        const char* what;
        uint32_t code, mask;
        bool single;
        uint32_t id;
        bool ext, rtr;
        uint8_t dlc, d0, d1;
        bool accepted;
    };
    const uint32_t std123 = (0x123u << 21) | 0xAA55;  // single: id 0x123, RTR 0, data AA 55
    const Row rows[] = {
        {"open, single", 0, 0xFFFFFFFF, true, 0x1ABCDEF0, true, false, 0, 0, 0, true},
        {"single std match", std123, 0x000F0000, true, 0x123, false, false, 2, 0xAA, 0x55, true},
        {"single std id", std123, 0x000F0000, true, 0x122, false, false, 2, 0xAA, 0x55, false},
        {"single std data", std123, 0x000F0000, true, 0x123, false, false, 2, 0xAA, 0x56, false},
        {"single std rtr", std123, 0x000F0000, true, 0x123, false, true, 0, 0, 0, false},
        {"single std no data", std123, 0x000F0000, true, 0x123, false, false, 0, 0, 0, true},
        {"single id bit masked", 0x123u << 21, 0x002FFFFF, true, 0x122, false, false, 8, 0, 0, true},
        {"single id bit masked, other", 0x123u << 21, 0x002FFFFF, true, 0x121, false, false, 8, 0, 0, false},
        {"single ext vs std", 0x12345678u << 3, 0x3, true, 0x123, false, false, 0, 0, 0, false},
    };
    for (const Row& r : rows) {
        SimFilter flt;
        flt.Set(r.code, r.mask, r.single);
        SimFrame f;
        f.id = r.id;
        f.ext = r.ext;
        f.rtr = r.rtr;
        f.dlc = r.dlc;
        f.data[0] = r.d0;
        f.data[1] = r.d1;
        EXPECT_EQ(flt.Accepts(f), r.accepted) << r.what;
    }
}
