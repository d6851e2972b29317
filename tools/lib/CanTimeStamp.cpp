#include "CanTimeStamp.h"

namespace vexlo_tool {

void XStampClock::Anchor(uint32_t stamp, uint64_t host_us) {
    if (anchored_) return;
    anchored_ = true;
    anchor_ticks_ = ticks_ = stamp;
    anchor_host_ = host_us;
    offset_us_ = static_cast<int64_t>(host_us) - static_cast<int64_t>(stamp) * 100;
}

uint64_t XStampClock::Convert(uint32_t stamp, uint64_t host_us) {
    const int64_t kWrap = int64_t(1) << 32;
    if (!anchored_) {
        Anchor(stamp, host_us);
        last_ = host_us;
        return host_us;
    }
    // The host's idea of the current tick count picks the wrap.
    int64_t expect = anchor_ticks_ + (static_cast<int64_t>(host_us - anchor_host_)) / 100;
    int64_t k = (expect - static_cast<int64_t>(stamp) + kWrap / 2);
    k = k >= 0 ? k / kWrap : -((-k + kWrap - 1) / kWrap);
    int64_t ticks = static_cast<int64_t>(stamp) + k * kWrap;
    int64_t elapsed_ticks = ticks - ticks_;
    if (ticks > ticks_) ticks_ = ticks;

    int64_t adapter_us = ticks * 100;
    int64_t seen = static_cast<int64_t>(host_us) - adapter_us;  // offset this frame allows
    if (seen < offset_us_) {
        offset_us_ = seen;  // adapter ahead of the host: never run ahead
    } else if (elapsed_ticks > 0) {
        int64_t slew = elapsed_ticks * 100 / 1000;  // 1 ms per second
        offset_us_ += seen - offset_us_ < slew ? seen - offset_us_ : slew;
    }
    int64_t t = adapter_us + offset_us_;
    uint64_t out = t < 0 ? 0 : static_cast<uint64_t>(t);
    if (out < last_) out = last_;
    last_ = out;
    return out;
}

}  // namespace vexlo_tool
