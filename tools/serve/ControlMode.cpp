#include "ControlMode.h"

#include "Connection.h"
#include "Text.h"

namespace vexlo_serve {

void XControlMode::Statistics(XConnection* c, unsigned bus, unsigned ms) {
    Stop(c);
    if (ms == 0) return;
    bus_ = bus;
    period_us_ = static_cast<uint64_t>(ms) * 1000;
    next_ = MonoUs() + period_us_;
    timer_.At(c->loop(), next_, [this, c] { Tick(c); });
}

void XControlMode::Stop(XConnection*) { timer_.Cancel(); }

void XControlMode::Tick(XConnection* c) {
    const XBusCounters& k = c->hub()->counters(bus_);
    char text[128];
    size_t n = FormatStat(k.rx_bytes, k.rx_frames, k.tx_bytes, k.tx_frames, text, sizeof(text));
    c->Notify(std::string(text, n));
    if (c->closing()) return;  // the report found the client gone
    // On a fixed grid; a late round does not bunch up the next ones.
    uint64_t now = MonoUs();
    next_ += period_us_;
    if (next_ <= now) next_ = now + period_us_;
    timer_.At(c->loop(), next_, [this, c] { Tick(c); });
}

}  // namespace vexlo_serve
