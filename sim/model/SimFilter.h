// The controller's acceptance filter: four code bytes and four mask bytes (mask bit 1 = don't care),
// in single filter mode (one long filter) or dual filter mode (two short ones, either may match).
#pragma once

#include <cstdint>

#include "model/SimWire.h"

namespace vexlo_sim {

class SimFilter {
public:
    // code and mask as the host sends them: byte 0 (ACR0/AMR0) is the most significant.
    void Set(uint32_t code, uint32_t mask, bool single);
    bool Accepts(const SimFrame& f) const;

    uint32_t code_ = 0;
    uint32_t mask_ = 0xFFFFFFFF;
    bool single_ = false;

private:
    // The frame laid out as the filter compares it, ACR0 in the top byte.
    static uint32_t SingleImage(const SimFrame& f);
    bool Match(uint32_t image, uint32_t code, uint32_t mask) const;
};

}  // namespace vexlo_sim
