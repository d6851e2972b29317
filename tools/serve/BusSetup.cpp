#include "BusSetup.h"

#include "vexlo_ext.h"

namespace vexlo_serve {

bool BusTiming(const XCommand& cmd, CAN_INIT* init, std::string* error) {
    uint64_t rate = cmd.values[0];
    uint64_t tq = cmd.values[2];
    uint64_t quanta = 1 + uint64_t{cmd.values[3]} + cmd.values[4] + cmd.values[5];
    if (!rate && tq) rate = (1000000000 + tq * quanta / 2) / (tq * quanta);
    if (!rate) {
        *error = "no bit rate (give the bit rate, or the time quantum and the segments)";
        return false;
    }
    unsigned below = 0, above = 0;
    unsigned char btr0 = 0, btr1 = 0;
    if (rate > 0xFFFFFFFF || !vexlo_timing_for_rate(static_cast<unsigned>(rate), &btr0, &btr1, &below, &above)) {
        std::string near = below ? std::to_string(below) : "";
        if (above) near += (near.empty() ? "" : ", ") + std::to_string(above);
        *error = "bit rate " + std::to_string(rate) + " cannot be reached within 1%; nearest rates: " +
                 (near.empty() ? "none" : near);
        return false;
    }
    init->BusTiming0 = btr0;
    init->BusTiming1 = btr1;
    return true;
}

bool BusMode(const XCommand& cmd, CAN_INIT* init, std::string* error) {
    if (cmd.values[1]) {
        *error = "the adapter has no loopback mode";
        return false;
    }
    if (cmd.values[2]) {
        *error = "three samples per bit are not supported";
        return false;
    }
    init->ListenOnly = cmd.values[0] ? 1 : 0;
    return true;
}

}  // namespace vexlo_serve
