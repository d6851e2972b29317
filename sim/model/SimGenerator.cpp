#include "model/SimGenerator.h"

#include <cstring>

namespace vexlo_sim {

void SimGenerator::Start(const SimGenConfig& cfg, uint64_t now) {
    cfg_ = cfg;
    running_ = true;
    sent_ = 0;
    due_ = now;
    period_ns_ = cfg.rate > 0 ? static_cast<uint64_t>(1e9 / cfg.rate) : 0;
}

SimFrame SimGenerator::Peek() const {
    SimFrame f;
    f.ext = cfg_.ext;
    f.rtr = cfg_.rtr;
    uint32_t range = cfg_.id_count ? cfg_.id_count : (cfg_.ext ? (1u << 29) : 2048u);
    uint32_t limit = cfg_.ext ? 0x1FFFFFFF : 0x7FF;
    f.id = (cfg_.first_id + static_cast<uint32_t>(sent_ % range)) & limit;
    f.dlc = static_cast<uint8_t>(cfg_.dlc < 0 ? sent_ % 9 : (cfg_.dlc > 8 ? 8 : cfg_.dlc));
    if (cfg_.counter_payload) {
        PutLe32(f.data, static_cast<uint32_t>(sent_));
        PutLe32(f.data + 4, static_cast<uint32_t>(sent_ >> 32));
    } else {
        std::memset(f.data, 0xA5, 8);
    }
    return f;
}

void SimGenerator::Advance(uint64_t bus_free_at) {
    ++sent_;
    if (cfg_.count && sent_ >= cfg_.count) running_ = false;
    due_ += period_ns_;
    // A rate beyond what the bus carries runs at the bus rate without building a backlog.
    if (due_ < bus_free_at) due_ = bus_free_at;
}

}  // namespace vexlo_sim
