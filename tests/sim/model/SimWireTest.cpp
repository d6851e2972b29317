// The 19-byte record, field by field.
#include <gtest/gtest.h>

#include "model/SimWire.h"

using namespace vexlo_sim;

TEST(SimWire, standard_frame_record_bytes) {
    SimFrame f;
    f.id = 0x123;
    f.dlc = 8;
    for (int i = 0; i < 8; ++i) f.data[i] = static_cast<uint8_t>(0x11 * (i + 1));
    uint8_t out[19];
    SimRecord::FromFrame(f, 0, 0).Encode(out);
    const uint8_t want[19] = {0, 0, 0, 0, 0, 0, 0x08, 0x60, 0x24, 0, 0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
    EXPECT_EQ(0, memcmp(out, want, 19));
}

TEST(SimWire, extended_remote_frame_on_channel_1_round_trips) {
    SimFrame f;
    f.id = 0x12345678;
    f.ext = true;
    f.rtr = true;
    f.dlc = 2;
    uint8_t out[19];
    SimRecord::FromFrame(f, 1, 0xA1B2C3D4).Encode(out);
    EXPECT_EQ(out[6], 0xD2);
    EXPECT_EQ(out[7], 0xC0);
    EXPECT_EQ(out[10], 0x91);
    EXPECT_EQ(out[0], 0xD4);
    SimRecord r = SimRecord::Decode(out);
    EXPECT_EQ(r.Channel(), 1u);
    EXPECT_EQ(r.timestamp, 0xA1B2C3D4u);
    SimFrame g = r.ToFrame();
    EXPECT_EQ(g.id, 0x12345678u);
    EXPECT_TRUE(g.ext);
    EXPECT_TRUE(g.rtr);
}

TEST(SimWire, notice_carries_three_data_bytes_at_7_to_9) {
    uint8_t out[19];
    SimRecord::Notice(kEvPassive, 1, 5, 0xD9, 0x01, 0x80).Encode(out);
    EXPECT_EQ(out[4], 0xE3);
    EXPECT_EQ(out[6], 0x10);
    EXPECT_EQ(out[7], 0xD9);
    EXPECT_EQ(out[8], 0x01);
    EXPECT_EQ(out[9], 0x80);
}
