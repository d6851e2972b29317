#include "CanWire.h"

#include <cstring>

void CanPack(const CAN_OBJ* obj, U32 channel, CAN_OBJX* rec) {
    rec->TransmitMode = obj->TransmitMode;
    rec->FrameInfo = static_cast<U8>((obj->DataLength & 0x0F) | (channel & 3) << 4 | (obj->RemoteFrame & 1) << 6 |
                                     (obj->ExtendedFrame & 1) << 7);
    CanPutLe32(rec->RawId, obj->ExtendedFrame ? obj->Id << 3 : obj->Id << 5);
    memcpy(rec->Data, obj->Data, sizeof(rec->Data));
}

void CanUnpack(const CAN_OBJX* rec, CAN_OBJ* obj) {
    bool ext = (rec->FrameInfo & 0x80) != 0;
    U32 raw = CanGetLe32(rec->RawId);
    obj->Id = ext ? raw >> 3 : raw >> 5;
    obj->TimeStamp = CanGetLe32(rec->TimeStamp);
    obj->TimeStampValid = 1;
    obj->TransmitMode = 0;
    obj->RemoteFrame = (rec->FrameInfo >> 6) & 1;
    obj->ExtendedFrame = ext ? 1 : 0;
    obj->DataLength = rec->FrameInfo & 0x0F;
    memcpy(obj->Data, rec->Data, sizeof(obj->Data));
    obj->Reserved[0] = obj->Reserved[1] = obj->Reserved[2] = 0;
}

bool CanNotice(const CAN_OBJX* rec, CAN_ERR* err) {
    U8 code = rec->EventCode;
    if (code == 0xEF) code = 0xE1;
    if (code < 0xE1 || code > 0xE5) return false;
    err->ErrorCode = 1u << (code - 0xE1);
    if (code == 0xE3) {
        err->Code4Data[0] = rec->RawId[0];
        err->Code4Data[1] = rec->RawId[1];
        err->Code4Data[2] = rec->RawId[2];
    } else if (code == 0xE4) {
        err->Code8Data = rec->RawId[0];
    }
    return true;
}

// The shared records are 8 bytes and 8-byte aligned (CanDev declares them so): each is read,
// replaced and exchanged as one lock-free 64-bit atomic word.
typedef U64 __attribute__((may_alias)) CanErrWord;
static_assert(sizeof(CAN_ERR) == sizeof(CanErrWord), "an error record is one 64-bit word");

static CanErrWord* CanErrWordOf(CAN_ERR* rec) { return reinterpret_cast<CanErrWord*>(rec); }

bool CanNoticeShared(const CAN_OBJX* rec, CAN_ERR* shared) {
    CanErrWord* word = CanErrWordOf(shared);
    CanErrWord cur = __atomic_load_n(word, __ATOMIC_ACQUIRE);
    for (;;) {
        CAN_ERR next;
        memcpy(&next, &cur, sizeof(next));
        if (!CanNotice(rec, &next)) return false;
        CanErrWord want;
        memcpy(&want, &next, sizeof(want));
        if (__atomic_compare_exchange_n(word, &cur, want, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) return true;
    }
}

CAN_ERR CanErrTake(CAN_ERR* shared) {
    CanErrWord old = __atomic_exchange_n(CanErrWordOf(shared), static_cast<CanErrWord>(0), __ATOMIC_ACQ_REL);
    CAN_ERR rec;
    memcpy(&rec, &old, sizeof(rec));
    return rec;
}

CanGatherStep CanGather(U8* cache, U32* cachelen, const U8* data, U32 len, CanGatherOut* out) {
    out->before = *cachelen;
    out->taken = 0;
    out->after = *cachelen;
    out->msglen = 0;
    if (len == 0) return CAN_GATHER_NODATA;
    U32 room = CAN_CACHE_SIZE - *cachelen;
    U32 n = len < room ? len : room;
    memcpy(cache + *cachelen, data, n);
    *cachelen += n;
    out->taken = n;
    out->after = *cachelen;
    if (*cachelen >= CAN_CACHE_SIZE) {
        *cachelen = 0;
        return CAN_GATHER_FULL;
    }
    if (n % CAN_USB_PACKET == 0) return CAN_GATHER_MORE;
    U32 l = *cachelen;
    *cachelen = 0;
    out->msglen = l;
    if (l % CAN_REC_SIZE != 0 && (l - 1) % CAN_REC_SIZE != 0) return CAN_GATHER_BADLEN;
    return CAN_GATHER_READY;
}
