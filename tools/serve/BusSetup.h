// The bus configuration commands of mode NO_BUS, as the channel settings they ask for. Pure; the
// bit timing is the library's.
#pragma once

#include <string>

#include "Command.h"
#include "vexlo.h"

namespace vexlo_serve {

// "< BUS B bitrate sample_point tq prop_seg phase_seg1 phase_seg2 sjw brp >": the bit rate, or
// when it is 0 the rate that the time quantum (ns) and the segments give (1 + prop_seg +
// phase_seg1 + phase_seg2 quanta per bit), gets the library's timing bytes for that rate in
// *init; the library chooses the sample point and the rest. False with the error reply's text.
// Example: 500000 875 0 0 0 0 0 0, or 0 0 125 6 7 2 1 1 (16 quanta of 125 ns): 500 kbit/s.
bool BusTiming(const XCommand& cmd, CAN_INIT* init, std::string* error);

// "< BUS C listen_only loopback three_samples >": ListenOnly of *init. The adapter has no
// loopback mode, and its three-sample mode is not one of the library's settings: either asked
// for is refused.
bool BusMode(const XCommand& cmd, CAN_INIT* init, std::string* error);

}  // namespace vexlo_serve
