// The command exchange: a packet on 0x01, its acknowledgement from 0x81.
#include <time.h>

#include <cstring>

#include "CanDev.h"

// Milliseconds of the monotonic clock: how long ago an exchange gave up (CanAcks).
static U64 NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<U64>(ts.tv_sec) * 1000 + static_cast<U64>(ts.tv_nsec) / 1000000;
}

int CanDev::Cmd(U8* cmd, U32 cmdlen, U8* ack, U32* acklen, U32 timeout) {
    XDBG(XLOG_GENERAL, "+++\n");
    int result = -1;
    do {
        if (!cmd || cmdlen == 0 || !ack || !acklen || *acklen == 0) {
            XERR("invalid parameters\n");
            break;
        }
        XDUMP(XLOG_DUMP, "cmd: ", cmd, cmdlen);

        // Not sent while the answer to an earlier exchange of its code may still come: it is
        // failed as one whose answer did not come, and owes nothing.
        const int kind = cmdlen >= 2 ? cmd[1] : -1;
        CanAcks::Ack answer;
        U32 got = 0;
        if (ClearToSend(kind, timeout)) {
            CanXfer* out = GetXfer(CAN_XFER_CMD_OUT);
            int posted = PostOut(out, cmd, cmdlen, timeout);
            U32 sent = posted > 0 ? static_cast<U32>(posted) : 0;
            XDBG(XLOG_GENERAL, "xfer(cmd): size=%d\n", sent);
            EndOut(out, posted, timeout);
            if (sent != cmdlen) {
                XERR("xfer(cmd) failed\n");
                break;
            }
            got = AwaitAck(kind, timeout, &answer) ? answer.size : 0;
        }
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
    DropLate();
}

void CanDev::DropLate() {
    CanAcks::Ack a;
    while (acks_.Pop(&a)) {
        acks_.Judge(CanAcks::kNone, a, NowMs());
        XDBG(XLOG_GENERAL, "*** late ack dropped: size=%d, code=0x%02x\n", a.size, a.size >= 2 ? a.bytes[1] : 0);
    }
}

bool CanDev::ClearToSend(int kind, U32 timeout) {
    CanXfer* in = GetXfer(CAN_XFER_CMD_IN);
    XLock guard(in);
    XTimer timer;
    for (;;) {
        DropLate();
        U64 owed = acks_.Clear(kind, NowMs());
        if (owed == 0) return true;
        timer.Stop();
        if (timer.msecs() >= timeout) break;
        U64 left = timeout - timer.msecs();
        in->Wait(static_cast<int>(owed < left ? owed : left));
    }
    XDBG(XLOG_GENERAL, "*** not sent: an earlier exchange of its kind (0x%x) may still be answered\n", kind);
    return false;
}

bool CanDev::AwaitAck(int kind, U32 timeout, CanAcks::Ack* ack) {
    CanXfer* in = GetXfer(CAN_XFER_CMD_IN);
    XLock guard(in);
    XTimer timer;
    for (;;) {
        CanAcks::Ack a;
        while (acks_.Pop(&a)) {
            if (acks_.Judge(kind, a, NowMs()) == CanAcks::kOurs) {
                *ack = a;
                return true;
            }
            XDBG(XLOG_GENERAL, "*** late ack dropped: size=%d, code=0x%02x\n", a.size, a.size >= 2 ? a.bytes[1] : 0);
        }
        timer.Stop();
        if (timer.msecs() >= timeout) break;
        in->Wait(static_cast<int>(timeout - timer.msecs()));
    }
    acks_.Owe(kind, NowMs());
    return false;
}
