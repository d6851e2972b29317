// The server's event loop: a cancelled timer is freed at once, and a timer ends with its owner.
#include <gtest/gtest.h>

#include "Loop.h"

using namespace vexlo_serve;

TEST(ServeLoop, timers_free_at_once_and_end_with_their_owner) {
    XLoop loop;
    {
        XTimer day;
        day.At(&loop, MonoUs() + 86400000000ull, [] {});
        day.Cancel();
        EXPECT_EQ(loop.timers(), 0u);
        day.At(&loop, 0, [] {});
    }
    EXPECT_EQ(loop.timers(), 0u);
}
