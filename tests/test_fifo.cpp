// The receive ring where the library cannot take it: counters past 32 bits and a two-thread stream
// checked byte for byte (capacity, refusal and clearing are covered through the library).
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "CanFifo.h"

static CAN_OBJ Frame(U32 seq) {
    CAN_OBJ o;
    memset(&o, 0, sizeof(o));
    o.Id = seq;
    o.TimeStamp = ~seq;
    o.DataLength = static_cast<U8>(seq & 0xF);
    for (int i = 0; i < 8; ++i) o.Data[i] = static_cast<U8>(seq >> (i % 4 * 8));
    o.Reserved[0] = static_cast<U8>(seq);
    o.Reserved[2] = 0xA5;
    return o;
}

static int PushFrame(CanFifo& fifo, U32 seq) {
    CAN_OBJ o = Frame(seq);
    return fifo.Push(&o);
}

TEST(Fifo, CountersWrapPast32Bits) {
    CanFifo fifo(16);
    fifo.Reset(0xFFFFFFFFu - 15);
    U32 next_in = 0, next_out = 0;
    for (int round = 0; round < 40; ++round) {
        ASSERT_EQ(PushFrame(fifo, next_in++), 1);
        if (fifo.Size() > 5) {
            // Keep a few queued across the wrap.
            CAN_OBJ got;
            ASSERT_EQ(fifo.Pop(&got), 1);
            EXPECT_EQ(got.Id, next_out++);
        }
        EXPECT_EQ(fifo.Size(), next_in - next_out);
    }
    CAN_OBJ got;
    while (fifo.Pop(&got)) EXPECT_EQ(got.Id, next_out++);
    EXPECT_EQ(next_out, 40u);
}

// One producer, one consumer, millions of frames: nothing lost, duplicated or reordered, and
// every frame's bytes arrive as pushed (a torn slot would break the check of Data against Id).
TEST(Fifo, TwoThreadStreamLosesNothing) {
    const U32 total = 3000000;
    CanFifo fifo(0x10000);
    std::thread producer([&] {
        for (U32 i = 0; i < total;) {
            CAN_OBJ o = Frame(i);
            if (fifo.Push(&o)) ++i;
            else std::this_thread::yield();
        }
    });
    U32 expect = 0;
    unsigned long long sum = 0;
    while (expect < total) {
        CAN_OBJ got;
        if (!fifo.Pop(&got)) {
            std::this_thread::yield();
            continue;
        }
        CAN_OBJ want = Frame(expect);
        ASSERT_EQ(memcmp(&got, &want, sizeof(got)), 0) << "at " << expect;
        sum += got.Id;
        ++expect;
    }
    producer.join();
    EXPECT_EQ(sum, static_cast<unsigned long long>(total) * (total - 1) / 2);
    EXPECT_EQ(fifo.Size(), 0u);
}
