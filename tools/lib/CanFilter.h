// Receive filters in candump's form, parsed into the library's filters (VEXLO_FILTER): how they
// are set in the adapter and which frames they pass is the library's rule.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vexlo_ext.h"

namespace vexlo_tool {

// Flags of a filter's identifier and mask, as candump has them: in the mask, kEffFlag makes the
// frame format count and kRtrFlag the remote bit, each as the identifier's own flag asks.
const uint32_t kEffFlag = 0x80000000u;
const uint32_t kRtrFlag = 0x40000000u;

// Parses "ID:MASK" or "ID~MASK" (hex, at most 8 digits). An identifier written with 8 digits is
// extended (kEffFlag is added to it, as candump does). The identifier bits go to id and mask; a
// flag in the mask sets extended / remote to 1 or 0 after the identifier's flag, a flag not in
// the mask leaves -1 (either); '~' makes the filter inverse. False with the reason in *error.
// Example: "123:C00007FF" -> id 0x123, mask 0x7FF, extended 0, remote 0;
//          "12345678:1FFFFFFF" -> id 0x12345678, mask 0x1FFFFFFF, extended -1, remote -1.
bool ParseFilter(const std::string& text, VEXLO_FILTER* filter, std::string* error);

// One channel of a dump and its filters.
struct ChannelFilters {
    unsigned channel = 0;
    std::vector<VEXLO_FILTER> filters;
};

// Parses the channel list of a dump: comma-separated items, each "CH" (0, 1, can0 or can1),
// "CH:ID:MASK" or "CH:ID~MASK" (the channel with a filter), or "ID:MASK" / "ID~MASK" (one more
// filter for the channel before it). A channel named twice gathers its filters. False with the
// reason in *error.
// Example: "0:123:C00007FF,456:C00007FF,1" -> channel 0 with two filters, channel 1 with none.
bool ParseChannelList(const std::string& text, std::vector<ChannelFilters>* out, std::string* error);

}  // namespace vexlo_tool
