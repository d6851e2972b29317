// Notices written on one thread while another copies and clears the record: every notice is
// seen exactly once or is still pending at the end, and no record is ever torn.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "CanWire.h"

// Each notice carries its sequence number in its three data bytes (code 0xE3), so a record read
// by the application tells exactly which notice it is; a torn record would pair the code with
// data of no notice or with a code that its data bytes cannot have.
TEST(ErrRecord, NoticesAgainstCopyAndClearNeverTearOrLose) {
    const U32 total = 20000;  // each one is a hand-over between the threads: slow on a loaded machine
    alignas(8) CAN_ERR shared;
    memset(&shared, 0, sizeof(shared));
    std::atomic<bool> done(false);
    // The writer waits until the previous notice has been taken, so each one must be seen.
    std::atomic<U32> taken(0);

    std::thread writer([&] {
        for (U32 seq = 1; seq <= total; ++seq) {
            while (taken.load(std::memory_order_acquire) + 1 < seq) std::this_thread::yield();
            CAN_OBJX rec;
            memset(&rec, 0, sizeof(rec));
            rec.EventCode = 0xE3;
            rec.RawId[0] = static_cast<U8>(seq);
            rec.RawId[1] = static_cast<U8>(seq >> 8);
            rec.RawId[2] = static_cast<U8>(seq >> 16);
            ASSERT_TRUE(CanNoticeShared(&rec, &shared));
        }
        done = true;
    });

    U32 next = 1;
    while (next <= total) {
        CAN_ERR got = CanErrTake(&shared);
        if (got.ErrorCode == 0) {
            ASSERT_EQ(got.Code4Data[0] | got.Code4Data[1] | got.Code4Data[2] | got.Code8Data, 0);
            if (done && next <= total) {
                // Nothing pending, yet notices missing: one was lost.
                CAN_ERR last = CanErrTake(&shared);
                ASSERT_NE(last.ErrorCode, 0u) << "lost notice " << next;
                got = last;
            } else {
                std::this_thread::yield();
                continue;
            }
        }
        ASSERT_EQ(got.ErrorCode, 4u);
        U32 seq = got.Code4Data[0] | got.Code4Data[1] << 8 | got.Code4Data[2] << 16;
        ASSERT_EQ(seq, next) << "out of order or duplicated";
        ++next;
        taken.store(seq, std::memory_order_release);
    }
    writer.join();
    CAN_ERR rest = CanErrTake(&shared);
    EXPECT_EQ(rest.ErrorCode, 0u);
}
