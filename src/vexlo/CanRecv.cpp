// Frame reception: data IN transfers gathered into whole messages, then each 19-byte record
// routed by its channel bits: frames to the channel's ring, notices to its error record. Each
// record gets its host time from the device's clock model, read once per message; each notice,
// and each frame refused by a full ring, is also noted in order among the channel's frames for
// vexlo_receive. Each message advances the counters and, when a channel's descriptor is in use,
// its readiness.
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
    // The host clock once per message, with the newest stamp of a record that will be used.
    for (U32 i = k; i-- > 0;) {
        if (CanRecChannel(&recs[i]) <= 1) {
            clock_.Begin(CanClock::HostNow(), CanGetLe32(recs[i].TimeStamp));
            break;
        }
    }
    // What the message adds to each channel is counted here and published once at its end: the
    // frames are decoded straight into their slots, and wr_ is stored once per channel (and
    // before each note, whose position must not be ahead of the published frames).
    const U32 w0[2] = {fifo_[0].wr_.load(std::memory_order_relaxed), fifo_[1].wr_.load(std::memory_order_relaxed)};
    U32 wr[2] = {w0[0], w0[1]};
    U32 lost[2] = {0, 0};
    bool noted[2] = {false, false};
    for (U32 i = 0; i < k; ++i) {
        const CAN_OBJX* rec = &recs[i];
        const U32 ch = CanRecChannel(rec);
        if (ch > 1) {
            // Never used as an index: the rest of the message is dropped.
            XERR("invalid channel: channel=%d\n", ch);
            CanCount(&badmsgs_, 1);
            break;
        }
        CanFifo* fifo = &fifo_[ch];
        if (rec->EventCode != 0) {
            if (CanNoticeShared(rec, GetError(static_cast<int>(ch)))) {
                // 0xE1..0xE5 are codes 1..16; 0xEF counts as 0xE1.
                const int bit = rec->EventCode == 0xEF ? 0 : rec->EventCode - 0xE1;
                CanCount(&stats_[ch].notices[bit], 1);
                const U32 stamp = CanGetLe32(rec->TimeStamp);
                const CanNote note = {wr[ch], stamp, clock_.Map(stamp, ch), static_cast<U8>(1u << bit),
                                      {rec->RawId[0], rec->RawId[1], rec->RawId[2]}};
                fifo->Publish(wr[ch]);
                notes_[ch].Push(note);
                noted[ch] = true;
            }
            continue;
        }
        if (fifo->Room(wr[ch])) {
            CAN_OBJ* obj = fifo->Slot(wr[ch]);
            CanUnpack(rec, obj);
            *fifo->HostSlot(wr[ch]) = clock_.Map(obj->TimeStamp, ch);
            ++wr[ch];
            CAN_TRACE_FRAME(ch, *obj);
            continue;
        }
        CAN_OBJ obj;
        CanUnpack(rec, &obj);
        if (lost[ch]++ == 0) {
            // One note per message where the first refused frame would have been.
            const CanNote note = {wr[ch], obj.TimeStamp, clock_.Map(obj.TimeStamp, ch), CAN_NOTE_LOST, {0, 0, 0}};
            fifo->Publish(wr[ch]);
            notes_[ch].Push(note);
            noted[ch] = true;
        }
        CAN_TRACE_FRAME(ch, obj);
    }
    for (int ch = 0; ch < 2; ++ch) {
        const U32 queued = wr[ch] - w0[ch];
        if (queued) {
            fifo_[ch].Publish(wr[ch]);
            CanCount(&stats_[ch].rx_frames, queued);
            const U32 peak = stats_[ch].queue_peak.load(std::memory_order_relaxed);
            stats_[ch].queue_peak.store(fifo_[ch].PeakDepth(peak), std::memory_order_relaxed);
        }
        if (lost[ch]) CanCount(&stats_[ch].rx_lost, lost[ch]);
    }
    for (int ch = 0; ch < 2; ++ch) {
        if (wr[ch] != w0[ch] || noted[ch]) ready_[ch].Pushed(&fifo_[ch], w0[ch], noted[ch]);
    }
}
