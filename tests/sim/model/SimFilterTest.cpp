// The acceptance filter, one frame against one setting per row, built by hand from the register
// layout of the controller: single and dual mode, standard and extended frames, data bytes, the
// remote bit and masked identifier bits. The library's filter fit is checked against this model.
#include <gtest/gtest.h>

#include "model/SimFilter.h"

using namespace vexlo_sim;

TEST(SimFilter, settings_accept_exactly_their_frames) {
    struct Row {  // the setting, then the frame
        const char* what; uint32_t code, mask; bool single; uint32_t id; bool ext, rtr; uint8_t dlc, d0, d1; bool accepted;
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
        {"single ext match", 0x91A2B3C0, 0x3, true, 0x12345678, true, false, 8, 1, 2, true},
        {"single ext rtr", 0x91A2B3C0, 0x3, true, 0x12345678, true, true, 0, 0, 0, false},
        {"single ext id.0", 0x91A2B3C0, 0x3, true, 0x12345679, true, false, 0, 0, 0, false},
        // Dual: filter 1 std 0x123 data with byte 1 A5 (ACR0 24, ACR1 6A, ACR3 low nibble 5),
        // filter 2 std 0x7FF remote (ACR2 FF, ACR3 high nibble F).
        {"dual std f1", 0x246AFFF5, 0, false, 0x123, false, false, 1, 0xA5, 0, true},
        {"dual std f1 low nibble", 0x246AFFF5, 0, false, 0x123, false, false, 1, 0xA4, 0, false},
        {"dual std f1 high nibble", 0x246AFFF5, 0, false, 0x123, false, false, 1, 0xB5, 0, false},
        {"dual std f1 no data", 0x246AFFF5, 0, false, 0x123, false, false, 0, 0, 0, true},
        {"dual std f2", 0x246AFFF5, 0, false, 0x7FF, false, true, 0, 0, 0, true},
        {"dual std f2 rtr", 0x246AFFF5, 0, false, 0x7FF, false, false, 0, 0, 0, false},
        // Dual: filter 1 ext ID.28-13 91A2, filter 2 ID.28-13 0; the rest is not compared.
        {"dual ext f1", 0x91A20000, 0, false, 0x12345678, true, true, 0, 0, 0, true},
        {"dual ext f1 low bits", 0x91A20000, 0, false, 0x12345678 ^ 0x1FFF, true, false, 0, 0, 0, true},
        {"dual ext f1 id.16", 0x91A20000, 0, false, 0x12355678, true, false, 0, 0, 0, false},
        {"dual ext f2", 0x91A20000, 0, false, 0xABC, true, false, 0, 0, 0, true},
        {"open, dual", 0, 0xFFFFFFFF, false, 0x7FF, false, true, 0, 0, 0, true},
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
