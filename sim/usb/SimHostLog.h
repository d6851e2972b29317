// Every packet the host sent on the OUT endpoints 0x01 and 0x02 and that reached the adapter,
// byte for byte and in order, with a wait for the n-th one.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "model/SimWire.h"

namespace vexlo_sim {

struct SimPacket {
    uint8_t ep;
    Bytes bytes;
};

class SimHostLog {
public:
    // Caller holds the testbed's lock; waiters are woken.
    void Add(uint8_t ep, const uint8_t* data, size_t len);
    // Packets of one endpoint (0x01 or 0x02), or of both when ep is 0.
    std::vector<Bytes> Packets(uint8_t ep) const;
    std::vector<SimPacket> All() const { return log_; }
    size_t Count(uint8_t ep) const;
    void Clear() { log_.clear(); }
    // Waits (releasing `lock`) until `n` packets of `ep` are logged or `timeout_ms` passed.
    bool Wait(std::unique_lock<std::mutex>& lock, uint8_t ep, size_t n, unsigned timeout_ms);

    uint64_t attempts_[2] = {0, 0};  // OUT transfers submitted on 0x01, 0x02, faulted ones too

private:
    std::vector<SimPacket> log_;
    std::condition_variable cv_;
};

}  // namespace vexlo_sim
