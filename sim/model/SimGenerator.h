// Traffic generator: a remote node on a channel's bus that sends a pattern of frames at a given
// rate. The default pattern is an incrementing sequence for loss checks: identifiers count up
// (wrapping inside their range) and the first four data bytes carry the frame's sequence number,
// little-endian.
#pragma once

#include <cstdint>

#include "model/SimWire.h"

namespace vexlo_sim {

struct SimGenConfig {
    double rate = 0;            // frames per second; 0 or above the bus ceiling: as fast as the bus
    uint32_t first_id = 0;      // first identifier
    uint32_t id_count = 0;      // identifiers used: first_id .. first_id + id_count - 1; 0 = the
                                // whole range (2048 standard, 2^29 extended)
    bool ext = false;
    bool rtr = false;
    int dlc = 0;                // 0..8; -1 cycles 0, 1, .., 8
    bool counter_payload = true;  // sequence number in data bytes 0..3, else 0xA5 fill
    uint64_t count = 0;         // frames to send, 0 = until stopped
};

class SimGenerator {
public:
    void Start(const SimGenConfig& cfg, uint64_t now);
    void Stop() { running_ = false; }
    bool Running() const { return running_; }

    // The frame due next and when it is due.
    SimFrame Peek() const;
    uint64_t Due() const { return due_; }
    // The bus carried (or dropped) the frame; the next one is scheduled.
    void Advance(uint64_t bus_free_at);
    // Nothing can be sent before `now` (its channel is off the bus): no backlog builds up.
    void Hold(uint64_t now) {
        if (due_ < now) due_ = now;
    }

    uint64_t sent_ = 0;   // frames the bus carried or dropped since Start

private:
    SimGenConfig cfg_;
    bool running_ = false;
    uint64_t due_ = 0;
    uint64_t period_ns_ = 0;
};

}  // namespace vexlo_sim
