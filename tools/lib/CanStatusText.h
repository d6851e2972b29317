// The controller's status registers in words.
#pragma once

#include <string>

namespace vexlo_tool {

// The error state from the status register and the two error counters: "bus-off" (status bit 7),
// "error passive" (a counter at 128 or more), "error warning" (status bit 6), else "error active".
// Example: (0x00, 0, 128) -> "error passive".
std::string ErrorStateText(unsigned char status, unsigned char rx_errors, unsigned char tx_errors);

// The error code capture register in words: type, direction and the frame segment.
// Example: 0xD9 -> "other error while transmitting, in the acknowledge slot".
std::string ErrorCodeText(unsigned char ecc);

// A version of two bytes, major and minor. Example: 0x0210 -> "2.10".
std::string VersionText(unsigned short version);

}  // namespace vexlo_tool
