// Frame transmission: a packet of 19-byte records on 0x02, acknowledged on 0x81 with the number of
// frames the adapter accepted in byte 2.
#include "CanDev.h"

int CanDev::Send(CAN_OBJX* recs, U32* count, U32 timeout) {
    U32 n = count ? *count : 0;
    XDBG(XLOG_GENERAL, "+++ %d frame(s), %ld bytes\n", n, static_cast<long>(CAN_REC_SIZE) * n);
    int result = -1;
    do {
        if (count) *count = 0;
        if (!count || !recs || n == 0) {
            XERR("invalid parameters\n");
            break;
        }
        XDUMP(XLOG_DUMP, "tx: ", reinterpret_cast<const U8*>(recs), CAN_REC_SIZE);

        // As a command (CanCmd.cpp): not sent while an earlier frame packet's answer may still
        // come, and then failed as one that was not acknowledged.
        CanAcks::Ack answer;
        U32 got = 0;
        if (ClearToSend(CanAcks::kFrames, timeout)) {
            const U32 bytes = CAN_REC_SIZE * n;
            CanXfer* out = GetXfer(CAN_XFER_DATA_OUT);
            int posted = PostOut(out, recs, bytes, timeout);
            U32 sent = posted > 0 ? static_cast<U32>(posted) : 0;
            XDBG(XLOG_GENERAL, "xfer(tx): size=%d\n", sent);
            EndOut(out, posted, timeout);
            if (sent != bytes) {
                XERR("xfer(tx) failed\n");
                break;
            }
            got = AwaitAck(CanAcks::kFrames, timeout, &answer) ? answer.size : 0;
        }
        XDBG(XLOG_GENERAL, "xfer(ack): size=%d\n", got);
        XDUMP(XLOG_DUMP, "ack: ", answer.bytes, got);
        // The count lives in byte 2: an answer that stops before it counts as none.
        if (got >= 3) {
            U32 accepted = answer.bytes[2];
            *count = accepted < n ? accepted : n;
            result = 0;
        }
    } while (false);
    U32 done = count ? *count : 0;
    XDBG(XLOG_GENERAL, "--- ret=%d: %d frames, %ld bytes\n", result, done, static_cast<long>(CAN_REC_SIZE) * done);
    return result;
}
