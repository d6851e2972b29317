// The adapter's wire formats, as pure functions over bytes: the 19-byte frame record used in both
// directions on the data endpoints, the gathering of data IN transfers into whole messages, and
// the decoding of frame and notice records. Nothing here touches a device, so all of it is tested
// and fuzzed directly.
#pragma once

#include <cstddef>

#include "utils.h"

// 19 bytes, no gaps; multi-byte fields little-endian, kept as byte arrays so that a record can be
// read in place from any offset of a message.
struct CAN_OBJX {
    U8 TimeStamp[4];
    U8 EventCode;     // 0: a CAN frame; 0xE1..0xE5, 0xEF: a notice
    U8 TransmitMode;
    U8 FrameInfo;     // bits 0-3 length, 4-5 channel, 6 remote, 7 extended
    U8 RawId[4];      // Id << 3 (extended) or Id << 5 (standard); notices: data bytes 7..9
    U8 Data[8];
};

static_assert(sizeof(CAN_OBJX) == 19, "wire record is 19 bytes");
static_assert(sizeof(CAN_OBJ) == 24, "CAN_OBJ is 24 bytes");
static_assert(offsetof(CAN_OBJ, TimeStamp) == 4 && offsetof(CAN_OBJ, TimeStampValid) == 8 &&
                  offsetof(CAN_OBJ, DataLength) == 12 && offsetof(CAN_OBJ, Data) == 13 &&
                  offsetof(CAN_OBJ, Reserved) == 21,
              "CAN_OBJ layout");
static_assert(sizeof(CAN_INIT) == 16 && offsetof(CAN_INIT, FilterMode) == 12 &&
                  offsetof(CAN_INIT, ListenOnly) == 15,
              "CAN_INIT layout");
static_assert(offsetof(CAN_INFO, ChannelCount) == 10 && offsetof(CAN_INFO, SerialNumber) == 11 &&
                  offsetof(CAN_INFO, IdText) == 31,
              "CAN_INFO layout");
static_assert(sizeof(CAN_STAT) == 12 && offsetof(CAN_STAT, RegTxErrCount) == 7 &&
                  offsetof(CAN_STAT, CounterPercent) == 8,
              "CAN_STAT layout");
static_assert(sizeof(CAN_ERR) == 8 && offsetof(CAN_ERR, Code4Data) == 4 && offsetof(CAN_ERR, Code8Data) == 7,
              "CAN_ERR layout");

enum : U32 {
    CAN_REC_SIZE = 19,     // bytes of one wire record
    CAN_USB_PACKET = 64,   // a transfer of a multiple of this is continued by the next one
    CAN_CACHE_SIZE = 1024, // the receive cache; a message is at most 1023 bytes
};

inline U32 CanGetLe32(const U8* p) {
    return static_cast<U32>(p[0]) | static_cast<U32>(p[1]) << 8 | static_cast<U32>(p[2]) << 16 |
           static_cast<U32>(p[3]) << 24;
}
inline void CanPutLe32(U8* p, U32 v) {
    p[0] = static_cast<U8>(v);
    p[1] = static_cast<U8>(v >> 8);
    p[2] = static_cast<U8>(v >> 16);
    p[3] = static_cast<U8>(v >> 24);
}
inline void CanPutBe32(U8* p, U32 v) {
    p[0] = static_cast<U8>(v >> 24);
    p[1] = static_cast<U8>(v >> 16);
    p[2] = static_cast<U8>(v >> 8);
    p[3] = static_cast<U8>(v);
}

// Packs a frame for transmission on `channel`: writes bytes 5 to 18 of the record and leaves the
// time stamp and event code as they are (the caller zero-fills the slice once).
// Example: Id 0x123 standard, 8 bytes 11..88, channel 0 -> .. 00 08 | 60 24 00 00 | 11 .. 88.
void CanPack(const CAN_OBJ* obj, U32 channel, CAN_OBJX* rec);

// The channel bits (4-5) of a record's FrameInfo: 0 to 3, of which only 0 and 1 are valid.
inline U32 CanRecChannel(const CAN_OBJX* rec) { return (rec->FrameInfo >> 4) & 3; }

// Decodes a frame record into a received CAN_OBJ (TimeStampValid 1, TransmitMode 0, length code
// 0 to 15 kept, all eight data bytes, zero Reserved).
void CanUnpack(const CAN_OBJX* rec, CAN_OBJ* obj);

// Applies a notice record to an error record: 0xE1..0xE5 set ErrorCode to 1 << (code - 0xE1),
// 0xE3 also Code4Data from record bytes 7..9, 0xE4 also Code8Data from byte 7, 0xEF counts as
// 0xE1. Returns false (and changes nothing) for any other code.
bool CanNotice(const CAN_OBJX* rec, CAN_ERR* err);

// Same, but atomically on a record shared with a reader that copies and clears it
// (CanErrTake): the update and the take never interleave and no notice is lost.
bool CanNoticeShared(const CAN_OBJX* rec, CAN_ERR* shared);
CAN_ERR CanErrTake(CAN_ERR* shared);

// One step of gathering a data IN transfer into the receive cache.
enum CanGatherStep {
    CAN_GATHER_NODATA,   // the transfer was empty: nothing changed
    CAN_GATHER_FULL,     // the cache reached its 1024 bytes: emptied, bytes lost
    CAN_GATHER_MORE,     // the transfer ended on a 64-byte boundary: the message continues
    CAN_GATHER_BADLEN,   // the message length is neither 19*K nor 19*K + 1: emptied
    CAN_GATHER_READY,    // a whole message of `msglen` bytes (K = msglen / 19 records) is in the cache
};

struct CanGatherOut {
    U32 before;  // bytes in the cache before this transfer
    U32 taken;   // bytes of the transfer copied in (the rest did not fit)
    U32 after;   // bytes in the cache after copying (before any emptying)
    U32 msglen;  // READY and BADLEN: the message length
};

// Copies what fits of `data` (len bytes) into `cache` (CAN_CACHE_SIZE bytes) after *cachelen
// bytes and decides the step. Keeps the invariant: on return *cachelen is 0 or a multiple of 64
// below 1024. On READY the message stays at the start of the cache and *cachelen is 0.
CanGatherStep CanGather(U8* cache, U32* cachelen, const U8* data, U32 len, CanGatherOut* out);

// The one-line trace of a frame (gdbg bit 0x20), written by the function that handles the frame.
#define CAN_TRACE_FRAME(ch, obj)                                                                          \
    XDBG(XLOG_FRAME,                                                                                      \
         "CAN_%d: ID=0x%08x, TS=0x%08x, TSE=%d, TXM=%d, RTR=%d, EXT=%d, LEN=%d, DAT=%02x %02x %02x %02x " \
         "%02x %02x %02x %02x \n",                                                                        \
         static_cast<int>(ch), (obj).Id, (obj).TimeStamp, (obj).TimeStampValid, (obj).TransmitMode,      \
         (obj).RemoteFrame, (obj).ExtendedFrame, (obj).DataLength, (obj).Data[0], (obj).Data[1],          \
         (obj).Data[2], (obj).Data[3], (obj).Data[4], (obj).Data[5], (obj).Data[6], (obj).Data[7])
