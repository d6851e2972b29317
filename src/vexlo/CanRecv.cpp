// Frame reception: data IN transfers gathered into whole messages, then each 19-byte record
// routed by its channel bits: frames to the channel's ring, notices to its error record. Each
// message also advances the counters and, when a channel's descriptor is in use, its readiness.
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
        CanCount(&badmsgs_, 1);
        return;
    case CAN_GATHER_MORE:
        XDBG(XLOG_RECV, "data not ready, %d bytes received ...\n", g.after);
        return;
    case CAN_GATHER_BADLEN:
        XWRN("data error, %d bytes dropped ...\n", g.msglen);
        CanCount(&badmsgs_, 1);
        return;
    default:
        break;
    }
    const U32 k = g.msglen / CAN_REC_SIZE;
    XDBG(XLOG_RECV, "saving %d frames, %d bytes\n", k, CAN_REC_SIZE * k);
    const CAN_OBJX* recs = reinterpret_cast<const CAN_OBJX*>(cache_.data());
    // What the message adds to each channel is counted here and published once at its end.
    const U32 w0[2] = {fifo_[0].wr_.load(std::memory_order_relaxed), fifo_[1].wr_.load(std::memory_order_relaxed)};
    U32 queued[2] = {0, 0};
    U32 lost[2] = {0, 0};
    U32 peak[2] = {stats_[0].queue_peak.load(std::memory_order_relaxed),
                   stats_[1].queue_peak.load(std::memory_order_relaxed)};
    for (U32 i = 0; i < k; ++i) {
        const CAN_OBJX* rec = &recs[i];
        const U32 ch = CanRecChannel(rec);
        if (ch > 1) {
            // Never used as an index: the rest of the message is dropped.
            XERR("invalid channel: channel=%d\n", ch);
            CanCount(&badmsgs_, 1);
            break;
        }
        if (rec->EventCode != 0) {
            if (CanNoticeShared(rec, GetError(static_cast<int>(ch)))) {
                // 0xE1..0xE5 are codes 1..16; 0xEF counts as 0xE1.
                CanCount(&stats_[ch].notices[rec->EventCode == 0xEF ? 0 : rec->EventCode - 0xE1], 1);
            }
            continue;
        }
        CAN_OBJ obj;
        CanUnpack(rec, &obj);
        CanFifo* fifo = GetFifo(static_cast<int>(ch));
        if (fifo->Push(&obj)) {
            ++queued[ch];
            peak[ch] = fifo->PeakDepth(peak[ch]);
        } else {
            ++lost[ch];
        }
        CAN_TRACE_FRAME(ch, obj);
    }
    for (int ch = 0; ch < 2; ++ch) {
        if (queued[ch]) {
            CanCount(&stats_[ch].rx_frames, queued[ch]);
            stats_[ch].queue_peak.store(peak[ch], std::memory_order_relaxed);
        }
        if (lost[ch]) CanCount(&stats_[ch].rx_lost, lost[ch]);
    }
    for (int ch = 0; ch < 2; ++ch) {
        if (queued[ch]) ready_[ch].Pushed(&fifo_[ch], w0[ch]);
    }
}
