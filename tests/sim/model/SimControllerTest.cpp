// The controller puts on the bus only the identifier bits of its frame format.
#include <gtest/gtest.h>

#include "model/SimController.h"

using namespace vexlo_sim;

TEST(SimController, queued_identifier_keeps_the_bits_of_its_format) {
    struct Row {
        bool ext;
        uint32_t sent, on_bus;
    } rows[] = {{false, 0xFFFF, 0x7FF}, {false, 0x123, 0x123}, {true, 0xFFFFFFFF, 0x1FFFFFFF},
                {true, 0x12345678, 0x12345678}};
    for (const Row& r : rows) {
        SimController c(0);
        c.Configure(0x00, 0x14, false);
        ASSERT_TRUE(c.Start(0));
        SimFrame f;
        f.ext = r.ext;
        f.id = r.sent;
        ASSERT_TRUE(c.Queue(f, 0));
        EXPECT_EQ(c.txq_.front().id, r.on_bus) << std::hex << r.sent;
    }
}
