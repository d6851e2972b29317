// The command exchange: a packet on 0x01, its acknowledgement from 0x81.
#include <cstring>

#include "CanDev.h"

int CanDev::Cmd(U8* cmd, U32 cmdlen, U8* ack, U32* acklen, U32 timeout) {
    XDBG(XLOG_GENERAL, "+++\n");
    int result = -1;
    do {
        if (!cmd || cmdlen == 0 || !ack || !acklen || *acklen == 0) {
            XERR("invalid parameters\n");
            break;
        }
        XDUMP(XLOG_DUMP, "cmd: ", cmd, cmdlen);

        U32 sent = PostOut(GetXfer(CAN_XFER_CMD_OUT), cmd, cmdlen, timeout);
        XDBG(XLOG_GENERAL, "xfer(cmd): size=%d\n", sent);
        if (sent != cmdlen) {
            XERR("xfer(cmd) failed\n");
            break;
        }

        CanXfer* in = AwaitAck(timeout);
        U32 got = in->GetSize();
        XDBG(XLOG_GENERAL, "xfer(ack): size=%d\n", got);
        result = got != 0 ? 0 : -1;
        if (got < *acklen) *acklen = got;
        if (*acklen != 0) {
            memcpy(ack, in->GetData(), *acklen);
            in->Unlock();
            XDUMP(XLOG_DUMP, "ack: ", ack, *acklen);
        } else {
            in->Unlock();
            XERR("xfer(ack) failed\n");
        }
    } while (false);
    XDBG(XLOG_GENERAL, "--- ret=%d\n", result);
    return result;
}

U32 CanDev::PostOut(CanXfer* out, void* pkt, U32 len, U32 timeout) {
    XLock guard(out);
    out->ClrSize();
    GetXfer(CAN_XFER_CMD_IN)->ClrSize();
    out->Setup(pkt, static_cast<int>(len), UsbXferCb, timeout);
    out->Submit();
    // A transfer that fails or times out is not signalled: this wait then runs out.
    if (!out->Captured()) out->Wait(static_cast<int>(timeout + 1000));
    U32 sent = out->GetSize();
    out->Cancel();
    WaitDelivered(out, static_cast<int>(timeout + 1000));
    return sent;
}

CanXfer* CanDev::AwaitAck(U32 timeout) {
    CanXfer* in = GetXfer(CAN_XFER_CMD_IN);
    in->Lock();
    if (!in->Captured()) in->Wait(static_cast<int>(timeout));
    return in;
}
