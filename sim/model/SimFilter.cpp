#include "model/SimFilter.h"

namespace vexlo_sim {

void SimFilter::Set(uint32_t code, uint32_t mask, bool single) {
    code_ = code;
    mask_ = mask;
    single_ = single;
}

uint32_t SimFilter::SingleImage(const SimFrame& f) {
    if (f.ext) {
        // ID.28..ID.0 in bits 31..3, RTR in bit 2.
        return ((f.id & 0x1FFFFFFF) << 3) | (f.rtr ? 4u : 0u);
    }
    // ID.10..ID.0 in bits 31..21, RTR in bit 20, data bytes 1 and 2 in the two low bytes.
    uint32_t img = ((f.id & 0x7FF) << 21) | (f.rtr ? (1u << 20) : 0u);
    unsigned n = f.rtr ? 0 : f.dlc;
    if (n > 0) img |= static_cast<uint32_t>(f.data[0]) << 8;
    if (n > 1) img |= f.data[1];
    return img;
}

bool SimFilter::Match(uint32_t image, uint32_t code, uint32_t mask) const {
    return ((image ^ code) & ~mask) == 0;
}

bool SimFilter::Accepts(const SimFrame& f) const {
    if (single_) {
        uint32_t mask = mask_;
        if (f.ext) {
            mask |= 0x3;  // bits 1-0 unused
        } else {
            mask |= 0x000F0000;  // ACR1 bits 3-0 unused
            unsigned n = f.rtr ? 0 : f.dlc;
            if (n < 2) mask |= 0x000000FF;  // a data byte the frame lacks cannot be compared
            if (n < 1) mask |= 0x0000FF00;
        }
        return Match(SingleImage(f), code_, mask);
    }
    if (f.ext) {
        // Filter 1: ACR0-ACR1 against ID.28..ID.13; filter 2: ACR2-ACR3 against the same bits.
        uint32_t top = (f.id >> 13) & 0xFFFF;
        bool m1 = ((top ^ (code_ >> 16)) & ~(mask_ >> 16) & 0xFFFF) == 0;
        bool m2 = ((top ^ code_) & ~mask_ & 0xFFFF) == 0;
        return m1 || m2;
    }
    // Standard frames. Filter 1: ACR0 + ACR1 bits 7-4 (ID and RTR), data byte 1 split over the
    // low nibbles of ACR1 (high half) and ACR3 (low half). Filter 2: ACR2 + ACR3 bits 7-4.
    uint32_t idrtr = ((f.id & 0x7FF) << 1) | (f.rtr ? 1u : 0u);  // 12 bits
    uint32_t c1 = ((code_ >> 20) & 0xFFF), m1 = ((mask_ >> 20) & 0xFFF);
    uint32_t c2 = ((code_ >> 4) & 0xFFF), m2 = ((mask_ >> 4) & 0xFFF);
    bool f1 = ((idrtr ^ c1) & ~m1 & 0xFFF) == 0;
    unsigned n = f.rtr ? 0 : f.dlc;
    if (f1 && n > 0) {
        uint32_t dc = (((code_ >> 16) & 0xF) << 4) | (code_ & 0xF);
        uint32_t dm = (((mask_ >> 16) & 0xF) << 4) | (mask_ & 0xF);
        f1 = ((f.data[0] ^ dc) & ~dm & 0xFF) == 0;
    }
    bool f2 = ((idrtr ^ c2) & ~m2 & 0xFFF) == 0;
    return f1 || f2;
}

}  // namespace vexlo_sim
