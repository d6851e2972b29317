// Frame reception: data IN transfers gathered into whole messages, then each 19-byte record
// routed by its channel bits: frames to the channel's ring, notices to its error record.
#include "CanDev.h"

void CanDev::Recv(CanXfer* xfer) {
    libusb_transfer* t = xfer->GetXfer();
    U32 len = t->actual_length > 0 ? static_cast<U32>(t->actual_length) : 0;
    CanGatherOut g;
    CanGatherStep step = CanGather(cache_.data(), &cachelen_, t->buffer, len, &g);
    if (step == CAN_GATHER_NODATA) {
        XWRN("no data ...\n");
        return;
    }
    XDBG(XLOG_RECV, "cache size: %d + %d = %d\n", g.before, g.taken, g.after);
    switch (step) {
    case CAN_GATHER_FULL:
        XWRN("cache full, %d bytes dropped ...\n", g.after);
        return;
    case CAN_GATHER_MORE:
        XDBG(XLOG_RECV, "data not ready, %d bytes received ...\n", g.after);
        return;
    case CAN_GATHER_BADLEN:
        XWRN("data error, %d bytes dropped ...\n", g.msglen);
        return;
    default:
        break;
    }
    const U32 k = g.msglen / CAN_REC_SIZE;
    XDBG(XLOG_RECV, "saving %d frames, %d bytes\n", k, CAN_REC_SIZE * k);
    const CAN_OBJX* recs = reinterpret_cast<const CAN_OBJX*>(cache_.data());
    for (U32 i = 0; i < k; ++i) {
        const CAN_OBJX* rec = &recs[i];
        const U32 ch = CanRecChannel(rec);
        if (ch > 1) {
            // Never used as an index: the rest of the message is dropped.
            XERR("invalid channel: channel=%d\n", ch);
            return;
        }
        if (rec->EventCode != 0) {
            CanNoticeShared(rec, GetError(static_cast<int>(ch)));
            continue;
        }
        CAN_OBJ obj;
        CanUnpack(rec, &obj);
        GetFifo(static_cast<int>(ch))->Push(&obj);
        CAN_TRACE_FRAME(ch, obj);
    }
}
