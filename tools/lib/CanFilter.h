// Receive filters in candump's form, and whether a channel's filters can also be set in the
// adapter's acceptance filter so that frames nobody wants never cross the USB link.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vexlo.h"

namespace vexlo_tool {

// Flags of a filter's identifier and mask, as candump has them: the frame's key is its
// identifier with kEffFlag for an extended frame and kRtrFlag for a remote frame.
const uint32_t kEffFlag = 0x80000000u;
const uint32_t kRtrFlag = 0x40000000u;

struct CanFilter {
    uint32_t id = 0;
    uint32_t mask = 0;
    bool inverse = false;  // "ID~MASK": passes the frames that do not match
};

// The filter key of a frame: identifier | kEffFlag if extended | kRtrFlag if remote.
uint32_t FrameKey(const CAN_OBJ& frame);

// Parses "ID:MASK" or "ID~MASK" (hex). An identifier written with 8 digits is extended: kEffFlag
// is added to it, as candump does. False with the reason in *error.
// Example: "123:7FF" -> id 0x123, mask 0x7FF; "12345678:1FFFFFFF" -> id 0x92345678.
bool ParseFilter(const std::string& text, CanFilter* filter, std::string* error);

// True when the frame passes: no filters at all, or any one filter passes it. A filter passes a
// frame when (key & mask) == (id & mask), or, inverse, when they differ.
// Example: {123:7FF} passes 0x123 and the extended 0x1000123, not 0x124.
bool FilterPasses(const std::vector<CanFilter>& filters, const CAN_OBJ& frame);

// One channel of a dump and its filters.
struct ChannelFilters {
    unsigned channel = 0;
    std::vector<CanFilter> filters;
};

// Parses the channel list of a dump: comma-separated items, each "CH" (0, 1, can0 or can1),
// "CH:ID:MASK" or "CH:ID~MASK" (the channel with a filter), or "ID:MASK" / "ID~MASK" (one more
// filter for the channel before it). A channel named twice gathers its filters. False with the
// reason in *error.
// Example: "0:123:C00007FF,456:C00007FF,1" -> channel 0 with two filters, channel 1 with none.
bool ParseChannelList(const std::string& text, std::vector<ChannelFilters>* out, std::string* error);

// The acceptance filter settings of CAN_INIT: 32-bit code and mask (ACR0/AMR0 in the top byte,
// mask bit 1 = don't care) and the mode.
struct AcceptanceFilter {
    uint32_t code = 0;
    uint32_t mask = 0xFFFFFFFFu;
    bool single = false;
};

// Finds acceptance filter settings that pass every frame the filters pass and, of the frame type
// (standard or extended) that the filters select, no other frame. True when such settings exist:
// no filter, a filter that passes everything, one or two standard-only filters, one extended-only
// filter, or two extended-only filters that ignore the low 13 identifier bits. Inverse filters and
// filters that take both frame types never fit (then *out passes everything and false is returned).
// Example: {123:C00007FF} -> single mode, code 0x24600000, mask 0x000FFFFF
// (data frames of 0x123 only: the mask C0000000 bits select standard and not remote).
bool FitAcceptance(const std::vector<CanFilter>& filters, AcceptanceFilter* out);

}  // namespace vexlo_tool
