// Bit rates and the controller's two bus timing bytes as typed. Which bytes a rate takes is the
// library's rule (vexlo_timing_for_rate).
#pragma once

#include <string>

namespace vexlo_tool {

// Parses a bit rate in bit/s: a plain decimal number with an optional k or M suffix ("500k",
// "1M", "83.333k", "47619"), from 1 to 100000000 bit/s. False on anything else.
// Example: "800k" -> 800000; "83.333k" -> 83333.
bool ParseBitRate(const std::string& text, unsigned* rate);

// Parses "B0:B1", two hex bytes. Example: "03:1C" -> 0x03, 0x1C.
bool ParseTimingBytes(const std::string& text, unsigned char* btr0, unsigned char* btr1);

}  // namespace vexlo_tool
