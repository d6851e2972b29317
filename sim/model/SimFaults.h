// Faults a test can script into the adapter. The model applies those about the content of its
// answers; the USB layer applies those about transfers.
#pragma once

#include <cstdint>

namespace vexlo_sim {

enum class SimAckFault {
    kNone,
    kNoAck,        // the adapter stays silent
    kWrongCode,    // byte 1 does not repeat the command code
    kNoAcceptBit,  // bit 7 of byte 2 clear
    kShort,        // only bytes 0 and 1
    kZeroLength,   // a zero-length packet on 0x81
};

enum class SimOutFault {
    kNone,
    kNever,  // the OUT transfer never completes (the host's timeout ends it)
    kStall,  // the endpoint halts: the transfer ends with a stall until the host clears the halt
};

// Code selector of an acknowledgement fault: every answer, or the answer to one command code, or
// the answer to transmit packets.
constexpr int kAnyAck = -1;
constexpr int kTxAck = 0x100;

struct SimFaults {
    SimAckFault ack = SimAckFault::kNone;
    int ack_code = kAnyAck;
    int ack_count = -1;      // answers still to spoil; -1 = until cleared
    int tx_accept = -1;      // frames accepted per transmit packet at most; -1 = buffer decides
    unsigned delay_ms = 0;   // every answer on 0x81 comes this much later
    SimOutFault out[2] = {SimOutFault::kNone, SimOutFault::kNone};  // index 0: 0x01, 1: 0x02
};

}  // namespace vexlo_sim
