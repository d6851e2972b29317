// Packing of transmitted frames, notices into the error record, and the gathering of data IN
// transfers into messages. (Records decoded into frames are compared whole by the frame path's
// integration test.)
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "CanWire.h"

static std::vector<U8> Bytes(std::initializer_list<int> list) {
    std::vector<U8> v;
    for (int b : list) v.push_back(static_cast<U8>(b));
    return v;
}

static std::vector<U8> RecBytes(const CAN_OBJX& rec) {
    const U8* p = reinterpret_cast<const U8*>(&rec);
    return std::vector<U8>(p, p + sizeof(rec));
}

TEST(Wire, PackWorkedExamples) {
    CAN_OBJ obj;
    memset(&obj, 0, sizeof(obj));
    obj.Id = 0x123;
    obj.DataLength = 8;
    const U8 data[8] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
    memcpy(obj.Data, data, 8);
    obj.TimeStamp = 0xFFFFFFFF;  // never sent
    CAN_OBJX rec;
    memset(&rec, 0, sizeof(rec));
    CanPack(&obj, 0, &rec);
    EXPECT_EQ(RecBytes(rec), Bytes({0, 0, 0, 0, 0, 0, 0x08, 0x60, 0x24, 0, 0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66,
                                    0x77, 0x88}));

    // Extended remote frame on channel 1: every data byte travels whatever the length says.
    memset(&obj, 0, sizeof(obj));
    obj.Id = 0x12345678;
    obj.ExtendedFrame = 1;
    obj.RemoteFrame = 1;
    obj.DataLength = 2;
    obj.TransmitMode = 2;
    for (int i = 0; i < 8; ++i) obj.Data[i] = static_cast<U8>(0xA0 + i);
    memset(&rec, 0, sizeof(rec));
    CanPack(&obj, 1, &rec);
    EXPECT_EQ(RecBytes(rec), Bytes({0, 0, 0, 0, 0, 2, 0xD2, 0xC0, 0xB3, 0xA2, 0x91, 0xA0, 0xA1, 0xA2, 0xA3, 0xA4,
                                    0xA5, 0xA6, 0xA7}));

    // Flags use bit 0 only; the length keeps its low 4 bits; the identifier is not masked.
    memset(&obj, 0, sizeof(obj));
    obj.Id = 0xFFFFFFFF;
    obj.ExtendedFrame = 2;  // non-zero: shifted by 3, but bit 0 clear: the extended flag stays clear
    obj.RemoteFrame = 3;
    obj.DataLength = 0x1F;
    CanPack(&obj, 1, &rec);
    EXPECT_EQ(rec.FrameInfo, 0x5F);
    EXPECT_EQ(CanGetLe32(rec.RawId), 0xFFFFFFF8u);
}

static CAN_OBJX Notice(U8 code, U8 b7, U8 b8, U8 b9) {
    CAN_OBJX rec;
    memset(&rec, 0, sizeof(rec));
    rec.EventCode = code;
    rec.RawId[0] = b7;
    rec.RawId[1] = b8;
    rec.RawId[2] = b9;
    return rec;
}

TEST(Wire, NoticesWriteTheirFieldsOnly) {
    struct Row {
        U8 code, b7;
        U32 error_code;
        U8 code4_2, code8;  // Code4Data[2] and Code8Data after the row
    };
    // Each row applies to the record as the rows before it left it.
    const Row rows[] = {{0xE3, 0x33, 4, 0x33, 0},  {0xE1, 9, 1, 0x33, 0},    {0xE4, 0x5A, 8, 0x33, 0x5A},
                        {0xE2, 0, 2, 0x33, 0x5A}, {0xE5, 0, 16, 0x33, 0x5A}, {0xEF, 0, 1, 0x33, 0x5A}};
    CAN_ERR err;
    memset(&err, 0, sizeof(err));
    for (const Row& r : rows) {
        CAN_OBJX rec = Notice(r.code, r.b7, 0x22, r.b7);
        EXPECT_TRUE(CanNotice(&rec, &err));
        EXPECT_EQ(err.ErrorCode, r.error_code) << std::hex << int(r.code);
        EXPECT_EQ(err.Code4Data[2], r.code4_2) << std::hex << int(r.code);
        EXPECT_EQ(err.Code8Data, r.code8) << std::hex << int(r.code);
    }
    // Unknown codes change nothing.
    CAN_ERR before = err;
    for (int code : {0xE0, 0xE6, 0xEE, 0xF0, 0x01}) {
        CAN_OBJX u = Notice(static_cast<U8>(code), 1, 2, 3);
        EXPECT_FALSE(CanNotice(&u, &err)) << code;
        EXPECT_EQ(memcmp(&before, &err, sizeof(err)), 0);
    }
}

struct Gatherer {
    U8 cache[CAN_CACHE_SIZE];
    U32 len = 0;
    CanGatherOut out;
    CanGatherStep Feed(size_t n, U8 fill = 0) {
        std::vector<U8> data(n, fill);
        return CanGather(cache, &len, data.data(), static_cast<U32>(n), &out);
    }
};

// No data, a bad length, 64 then 12 bytes and sixteen transfers of 64 are rows of the fault matrix.
TEST(Wire, GatherFollowsTheContinuationAndLengthRules) {
    Gatherer g;
    EXPECT_EQ(g.Feed(19), CAN_GATHER_READY);
    EXPECT_EQ(g.out.msglen, 19u);
    EXPECT_EQ(g.len, 0u);
    // Two records and a trailing byte.
    EXPECT_EQ(g.Feed(39), CAN_GATHER_READY);
    EXPECT_EQ(g.out.msglen / CAN_REC_SIZE, 2u);
    EXPECT_EQ(g.Feed(20), CAN_GATHER_READY);
    EXPECT_EQ(g.Feed(1), CAN_GATHER_READY);
    EXPECT_EQ(g.out.msglen / CAN_REC_SIZE, 0u);
    // 1024 bytes fill the cache; the next transfer starts afresh and fails the length test.
    EXPECT_EQ(g.Feed(1024), CAN_GATHER_FULL);
    EXPECT_EQ(g.out.after, 1024u);
    EXPECT_EQ(g.len, 0u);
    EXPECT_EQ(g.Feed(100), CAN_GATHER_BADLEN);
    EXPECT_EQ(g.out.msglen, 100u);
    // 960 gathered, then 100 more: only 64 fit; the rest is dropped with the full cache.
    for (int i = 0; i < 15; ++i) g.Feed(64);
    EXPECT_EQ(g.Feed(100), CAN_GATHER_FULL);
    EXPECT_EQ(g.out.taken, 64u);
    // The message stays at the start of the cache on READY.
    std::vector<U8> msg(38);
    for (size_t i = 0; i < msg.size(); ++i) msg[i] = static_cast<U8>(i);
    EXPECT_EQ(CanGather(g.cache, &g.len, msg.data(), 38, &g.out), CAN_GATHER_READY);
    EXPECT_EQ(memcmp(g.cache, msg.data(), 38), 0);
}
