// What the server writes to a socketcand client: frames, error frames, statistics. Pure.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vexlo_ext.h"

namespace vexlo_serve {

// Room for the longest text FormatEvent writes.
const size_t kEventText = 96;

// A frame as the socketcand protocol writes it, host time in seconds since the Epoch:
//   data frame   "< frame 123 1700000000.123456 DEADBEEF >" (ID %03X standard, %08X extended;
//                no data: "< frame 123 1700000000.123456  >", the empty token clients need)
//   remote frame "< rtr 123 1700000000.123456 2 >" (the length code)
//   error frame  "< error 00000004 1700000000.123456 >" (the Linux error class)
// Writes into out (kEventText bytes) and returns the length.
size_t FormatEvent(const VEXLO_FRAME& f, char* out);

// "< stat RBYTES RPACKETS TBYTES TPACKETS >"
size_t FormatStat(uint64_t rbytes, uint64_t rpackets, uint64_t tbytes, uint64_t tpackets, char* out, size_t room);

}  // namespace vexlo_serve
