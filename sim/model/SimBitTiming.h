// Bus timing of the controller (16 MHz clock) and the length of frames on the wire.
#pragma once

#include <cstdint>

#include "model/SimWire.h"

namespace vexlo_sim {

class SimBitTiming {
public:
    static constexpr uint32_t kClockHz = 16000000;

    // Bit rate in bit/s from the two timing bytes:
    // quantum = 2 (BRP + 1) / 16 MHz, bit = (1 + TSEG1 + 1 + TSEG2 + 1) quanta.
    // Example: 0x00, 0x14 gives 1,000,000; 0x03, 0x1C gives 125,000.
    static uint32_t BitRate(uint8_t btr0, uint8_t btr1);

    // Bits a frame occupies on the bus without stuff bits, including ACK, end of frame and the
    // three bits of interframe space: 47 for a standard frame without data, 8 more per data byte,
    // 20 more for an extended header; remote frames carry no data bits.
    static unsigned FrameBits(const SimFrame& f);

    // Bits from the start of a frame to the end of the error frame that follows a missing
    // acknowledgement: the frame up to its ACK slot, six error flag bits, eight delimiter bits and
    // the interframe space.
    static unsigned AckErrorBits(const SimFrame& f);

    // Nanoseconds that `bits` take at `bitrate`.
    static uint64_t Duration(unsigned bits, uint32_t bitrate);
};

}  // namespace vexlo_sim
