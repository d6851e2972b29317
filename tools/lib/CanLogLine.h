// Lines of the candump log format: "(SECONDS.MICROS) NAME FRAME", which candump -L writes and
// canplayer and python-can's can.LogReader read.
#pragma once

#include <cstdint>
#include <string>

#include "vexlo.h"

namespace vexlo_tool {

struct LogLine {
    uint64_t time_us = 0;  // the time stamp in microseconds
    std::string channel;   // the interface name as written, for example "can1"
    CAN_OBJ frame = {};
    bool error = false;    // an error frame: frame.Id is its error class
};

// Parses one line (without its newline). A trailing direction word ("R" or "T", as python-can
// writes) is accepted and ignored; an error frame ("20000004#0001000000000000") sets error.
// False with the reason in *error on anything else.
// Example: "(1700000000.123456) can1 123#DEADBEEF" -> 1700000000123456 us, "can1", frame 0x123.
bool ParseLogLine(const std::string& line, LogLine* out, std::string* error);

// The log line of a frame or an error frame (see FormatFrame), without a newline.
// Example: (1700000000123456, "can0", extended 0x1ABCDE no data) -> "(1700000000.123456) can0 001ABCDE#".
std::string FormatLogLine(uint64_t time_us, const std::string& channel, const CAN_OBJ& frame, bool error = false);

// The channel number that a log channel name ends in ("can1", "vcan0", "1"), or -1.
int LogChannelNumber(const std::string& name);

}  // namespace vexlo_tool
