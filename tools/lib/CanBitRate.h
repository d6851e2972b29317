// Bit rates and the controller's two bus timing bytes (16 MHz controller clock).
#pragma once

#include <string>

namespace vexlo_tool {

// Parses a bit rate in bit/s: digits with an optional k or M suffix and decimals
// ("500k", "1M", "83.333k", "47619"). False on anything else or on 0.
// Example: "800k" -> 800000.
bool ParseBitRate(const std::string& text, unsigned* rate);

// The timing bytes for a rate: the usual pairs for 1M, 800k, 500k, 250k, 125k, 100k, 50k, 20k,
// 10k; otherwise the prescaler and segments whose rate is nearest (sample point near 80%,
// sync jump width 1). False when no setting comes within 1% of the rate, with a message naming
// the nearest rates that work in *error.
// Example: 500000 -> 0x00, 0x1C; 950000 -> false, "... nearest rates: 888889, 1000000".
bool TimingForRate(unsigned rate, unsigned char* btr0, unsigned char* btr1, std::string* error);

// The bit rate in bit/s that two timing bytes give.
// Example: 0x03, 0x1C -> 125000.
double RateForTiming(unsigned char btr0, unsigned char btr1);

// Parses "B0:B1", two hex bytes. Example: "03:1C" -> 0x03, 0x1C.
bool ParseTimingBytes(const std::string& text, unsigned char* btr0, unsigned char* btr1);

}  // namespace vexlo_tool
