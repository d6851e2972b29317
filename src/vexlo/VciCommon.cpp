#include "VciCommon.h"

#include <cstring>

VciPacket VciMakePacket(U8 code, U8 lenbyte, U32 len) {
    VciPacket p;
    memset(&p, 0, sizeof(p));
    p.bytes[0] = 0x12;
    p.bytes[1] = code;
    p.bytes[2] = lenbyte;
    p.len = len;
    return p;
}

bool VciExchange(const char* func, int line, CanDev* dev, VciPacket* pkt, U8* ack) {
    memset(ack, 0, VCI_ACK_CAP);
    U32 acklen = VCI_ACK_CAP;
    if (dev->Cmd(pkt->bytes, pkt->len, ack, &acklen, VCI_CMD_TIMEOUT) != 0) {
        XLogWrite("ERR", func, line, "Cmd failed\n");
        return false;
    }
    // Bytes that did not arrive read as 0 here (ack was zero-filled), so a short answer fails the
    // test rather than being judged on stale bytes.
    if (ack[1] != pkt->bytes[1] || !(ack[2] & 0x80)) {
        XLogWrite("ERR", func, line, "Ack error: %02x %02x %02x\n", ack[0], ack[1], ack[2]);
        return false;
    }
    return true;
}
