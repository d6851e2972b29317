// What the exported calls share: the command packet builder and the judging of an
// acknowledgement, written so that the log lines name the exported call itself.
#pragma once

#include "CanDev.h"

enum : U32 {
    VCI_MAX_INDEX = 31,     // device indexes the channel calls accept
    VCI_ACK_CAP = 64,       // acknowledgement capacity of every exchange
    VCI_CMD_TIMEOUT = 1000, // ms, every command exchange
};

// A command packet: 12 cc LL 00, then the channel selector and arguments; zero-filled.
struct VciPacket {
    U8 bytes[13];
    U32 len;
};
VciPacket VciMakePacket(U8 code, U8 lenbyte, U32 len);

// One exchange judged as every command call judges it: "Cmd failed" when the exchange fails,
// "Ack error: b0 b1 b2" when byte 1 is not the code or bit 7 of byte 2 is clear. Returns true for
// a good acknowledgement, whose bytes are then in `ack` (VCI_ACK_CAP bytes). The caller holds
// cmdlck_. The log lines carry the calling function's signature and line.
bool VciExchange(const char* func, int line, CanDev* dev, VciPacket* pkt, U8* ack);
#define VCI_EXCHANGE(dev, pkt, ack) VciExchange(__PRETTY_FUNCTION__, __LINE__, dev, pkt, ack)
