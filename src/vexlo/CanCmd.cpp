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

        CanXfer* out = GetXfer(CAN_XFER_CMD_OUT);
        int posted = PostOut(out, cmd, cmdlen, timeout);
        U32 sent = posted > 0 ? static_cast<U32>(posted) : 0;
        XDBG(XLOG_GENERAL, "xfer(cmd): size=%d\n", sent);
        EndOut(out, posted, timeout);
        if (sent != cmdlen) {
            XERR("xfer(cmd) failed\n");
            break;
        }

        CanAcks::Ack answer;
        U32 got = AwaitAck(cmdlen >= 2 ? cmd[1] : -1, timeout, &answer) ? answer.size : 0;
        XDBG(XLOG_GENERAL, "xfer(ack): size=%d\n", got);
        result = got != 0 ? 0 : -1;
        if (got < *acklen) *acklen = got;
        if (*acklen != 0) {
            memcpy(ack, answer.bytes, *acklen);
            XDUMP(XLOG_DUMP, "ack: ", ack, *acklen);
        } else {
            XERR("xfer(ack) failed\n");
        }
    } while (false);
    XDBG(XLOG_GENERAL, "--- ret=%d\n", result);
    return result;
}

int CanDev::PostOut(CanXfer* out, const void* pkt, U32 len, U32 timeout) {
    out->Lock();
    // An exchange that gave up on this transfer left it in flight: it is not set up again.
    if (out->InFlight()) {
        XERR("xfer still in flight: ep=0x%02x\n", out->ep_);
        return -1;
    }
    out->ClrSize();
    ForgetAcks();
    out->Setup(out->Hold(pkt, len), static_cast<int>(len), UsbXferCb, timeout);
    out->Submit();
    // A transfer that fails or times out is not signalled: this wait then runs out.
    if (!out->Captured()) out->Wait(static_cast<int>(timeout + 1000));
    return static_cast<int>(out->GetSize());
}

void CanDev::EndOut(CanXfer* out, int posted, U32 timeout) {
    if (posted >= 0) {
        out->Cancel();
        WaitDelivered(out, static_cast<int>(timeout + 1000));
    }
    out->Unlock();
}

void CanDev::ForgetAcks() {
    CanXfer* in = GetXfer(CAN_XFER_CMD_IN);
    XLock guard(in);
    in->ClrSize();
    CanAcks::Ack a;
    while (acks_.Pop(&a)) {
        acks_.Judge(CanAcks::kNone, a);
        XDBG(XLOG_GENERAL, "*** late ack dropped: size=%d, code=0x%02x\n", a.size, a.size >= 2 ? a.bytes[1] : 0);
    }
}

bool CanDev::AwaitAck(int kind, U32 timeout, CanAcks::Ack* ack) {
    CanXfer* in = GetXfer(CAN_XFER_CMD_IN);
    XLock guard(in);
    XTimer timer;
    unsigned long long limit = timeout;
    bool held = false;
    for (;;) {
        CanAcks::Ack a;
        while (acks_.Pop(&a)) {
            CanAcks::Verdict v = acks_.Judge(kind, a);
            if (v == CanAcks::kStale) {
                XDBG(XLOG_GENERAL, "*** late ack dropped: size=%d, code=0x%02x\n", a.size,
                     a.size >= 2 ? a.bytes[1] : 0);
                continue;
            }
            *ack = a;
            if (v == CanAcks::kOurs) return true;
            held = true;
        }
        timer.Stop();
        if (timer.msecs() >= limit) {
            // A held answer may be an earlier exchange's: the own one would come within one more
            // wait. If none comes, the held one is the own.
            if (!held || limit > timeout) break;
            limit += timeout;
            continue;
        }
        in->Wait(static_cast<int>(limit - timer.msecs()));
    }
    if (held) {
        acks_.Forgive();
        return true;
    }
    acks_.Owe(kind);
    return false;
}
