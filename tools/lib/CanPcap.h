// Frames as packet capture records: the link type LINKTYPE_CAN_SOCKETCAN (227) that Wireshark,
// tshark and libpcap read, one 16-byte record per frame in the Linux CAN frame layout.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vexlo_ext.h"

namespace vexlo_tool {

const int kLinkTypeSocketCan = 227;
const size_t kSocketCanRecordSize = 16;

// Flags in the record's first word, beside the 29 identifier bits.
const uint32_t kSocketCanExtended = 0x80000000u;
const uint32_t kSocketCanRemote = 0x40000000u;
const uint32_t kSocketCanError = 0x20000000u;

// Writes the record of one frame into out[0..15]:
//   bytes 0-3  identifier and flags, big-endian: the identifier cut to 11 bits (standard) or 29
//              (extended), 0x80000000 extended, 0x40000000 remote, 0x20000000 error frame;
//   byte 4     the data length (0-8); a received length code 9-15 stands for 8 bytes, and then
//              byte 7 keeps the code as Linux does (len8_dlc);
//   bytes 5-6  0 (no CAN FD flags);
//   bytes 8-15 the data: the first `length` bytes of the frame, zeros after them.
// A remote frame keeps its length and carries zero data. An error frame (VEXLO_FRAME_ERROR) is
// written as the library gives it: its class in the identifier bits, length 8, the details in
// the data.
// Example: extended 0x12345678 with data 11 22 33 ->
//   92 34 56 78  03 00 00 00  11 22 33 00 00 00 00 00
void EncodeSocketCan(const VEXLO_FRAME& frame, uint8_t out[kSocketCanRecordSize]);

// The seconds and the fraction (microseconds, or nanoseconds when `nano`) of a record's time
// stamp for a host time in microseconds since the Epoch.
// Example: 1700000000123456 -> 1700000000 and 123456 (micro) or 123456000 (nano).
void PcapStamp(uint64_t host_us, bool nano, uint32_t* seconds, uint32_t* fraction);

}  // namespace vexlo_tool
