// The controller puts on the bus only the identifier bits of its frame format.
#include <gtest/gtest.h>

#include "model/SimController.h"

using namespace vexlo_sim;

TEST(SimController, queued_identifier_keeps_the_bits_of_its_format) {
    const uint32_t rows[][3] = {  // extended?, identifier sent, identifier on the bus
        {0, 0xFFFF, 0x7FF}, {0, 0x123, 0x123}, {1, 0xFFFFFFFF, 0x1FFFFFFF}, {1, 0x1234567, 0x1234567}};
    for (const auto& r : rows) {
        SimController c(0);
        c.Configure(0x00, 0x14, false);
        SimFrame f{r[1], r[0] != 0, false, 0, {}, 0};
        ASSERT_TRUE(c.Start(0) && c.Queue(f, 0));
        EXPECT_EQ(c.txq_.front().id, r[2]) << std::hex << r[1];
    }
}
