#include "usb/SimHostLog.h"

#include <chrono>

namespace vexlo_sim {

void SimHostLog::Add(uint8_t ep, const uint8_t* data, size_t len) {
    log_.push_back(SimPacket{ep, Bytes(data, data + len)});
    cv_.notify_all();
}

std::vector<Bytes> SimHostLog::Packets(uint8_t ep) const {
    std::vector<Bytes> out;
    for (const SimPacket& p : log_)
        if (ep == 0 || p.ep == ep) out.push_back(p.bytes);
    return out;
}

size_t SimHostLog::Count(uint8_t ep) const {
    size_t n = 0;
    for (const SimPacket& p : log_)
        if (ep == 0 || p.ep == ep) ++n;
    return n;
}

bool SimHostLog::Wait(std::unique_lock<std::mutex>& lock, uint8_t ep, size_t n, unsigned timeout_ms) {
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    return cv_.wait_until(lock, until, [&] { return Count(ep) >= n; });
}

}  // namespace vexlo_sim
