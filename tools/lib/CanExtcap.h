// The text pieces of the Wireshark capture program: interface names and capture filters.
#pragma once

#include <string>
#include <vector>

#include "CanFilter.h"
#include "vexlo_ext.h"

namespace vexlo_tool {

// The capture interface of channel CH of the adapter at position A: "vexlo<A>can<CH>".
// Example: 0, 1 -> "vexlo0can1".
std::string ExtcapInterfaceName(unsigned adapter, unsigned channel);

// Parses an interface name made by ExtcapInterfaceName (adapter 0 to 31, channel 0 or 1).
// Example: "vexlo12can0" -> 12, 0; "vexlo0can2" and "vexlo00can1" -> false.
bool ParseExtcapInterface(const std::string& name, unsigned* adapter, unsigned* channel);

// Parses a capture filter: candump filters ("ID:MASK", "ID~MASK", see ParseFilter) separated by
// commas or blanks; an empty text is no filter. False with the reason in *error.
// Example: "123:7FF, 12345678:1FFFFFFF" -> two filters.
bool ParseFilterList(const std::string& text, std::vector<VEXLO_FILTER>* out, std::string* error);

}  // namespace vexlo_tool
