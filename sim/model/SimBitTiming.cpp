#include "model/SimBitTiming.h"

namespace vexlo_sim {

uint32_t SimBitTiming::BitRate(uint8_t btr0, uint8_t btr1) {
    uint32_t brp = btr0 & 0x3F;
    uint32_t tseg1 = btr1 & 0x0F;
    uint32_t tseg2 = (btr1 >> 4) & 0x07;
    uint32_t quanta = 1 + (tseg1 + 1) + (tseg2 + 1);
    return kClockHz / (2 * (brp + 1) * quanta);
}

unsigned SimBitTiming::FrameBits(const SimFrame& f) {
    unsigned data = f.rtr ? 0 : (f.dlc > 8 ? 8 : f.dlc);
    return (f.ext ? 67u : 47u) + 8u * data;
}

unsigned SimBitTiming::AckErrorBits(const SimFrame& f) {
    // The ACK slot comes 10 bits before the end of frame and interframe space (ACK delimiter,
    // seven end-of-frame bits, three of interframe space minus the slot itself).
    return FrameBits(f) - 10 + 6 + 8 + 3;
}

uint64_t SimBitTiming::Duration(unsigned bits, uint32_t bitrate) {
    if (bitrate == 0) return 0;
    return static_cast<uint64_t>(bits) * 1000000000ull / bitrate;
}

}  // namespace vexlo_sim
