#include "model/SimWire.h"

#include <cstring>

namespace vexlo_sim {

void SimRecord::Encode(uint8_t* out) const {
    PutLe32(out, timestamp);
    out[4] = event;
    out[5] = mode;
    out[6] = info;
    std::memcpy(out + 7, raw, 4);
    std::memcpy(out + 11, data, 8);
}

SimRecord SimRecord::Decode(const uint8_t* in) {
    SimRecord r;
    r.timestamp = GetLe32(in);
    r.event = in[4];
    r.mode = in[5];
    r.info = in[6];
    std::memcpy(r.raw, in + 7, 4);
    std::memcpy(r.data, in + 11, 8);
    return r;
}

SimRecord SimRecord::FromFrame(const SimFrame& f, unsigned channel, uint32_t ts) {
    SimRecord r;
    r.timestamp = ts;
    r.event = kEvFrame;
    r.mode = 0;
    r.info = static_cast<uint8_t>((f.dlc & 0x0F) | ((channel & 3) << 4) | (f.rtr ? 0x40 : 0) |
                                  (f.ext ? 0x80 : 0));
    PutLe32(r.raw, f.ext ? (f.id << 3) : (f.id << 5));
    std::memcpy(r.data, f.data, 8);
    return r;
}

SimFrame SimRecord::ToFrame() const {
    SimFrame f;
    f.ext = (info & 0x80) != 0;
    f.rtr = (info & 0x40) != 0;
    f.dlc = info & 0x0F;
    uint32_t v = GetLe32(raw);
    f.id = f.ext ? (v >> 3) : (v >> 5);
    f.mode = mode;
    std::memcpy(f.data, data, 8);
    return f;
}

SimRecord SimRecord::Notice(uint8_t code, unsigned channel, uint32_t ts, uint8_t d0, uint8_t d1,
                            uint8_t d2) {
    SimRecord r;
    r.timestamp = ts;
    r.event = code;
    r.info = static_cast<uint8_t>((channel & 3) << 4);
    r.raw[0] = d0;
    r.raw[1] = d1;
    r.raw[2] = d2;
    return r;
}

}  // namespace vexlo_sim
