#include "Adapter.h"

#include <poll.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "Process.h"

namespace vexlo_tool {

const char kAckHint[] = "(is another node acknowledging?)";

int XAdapter::Open() {
    if (VCI_OpenDevice(kDevType, common_.dev, 0)) {
        open_ = true;
        return kExitOk;
    }
    const char* text = nullptr;
    switch (vexlo_open_error(&text)) {
    case VEXLO_OPEN_MISSING:
        Complain("no adapter at position %u", common_.dev);
        break;
    case VEXLO_OPEN_BUSY:
        Complain("adapter %u is in use by another program", common_.dev);
        break;
    case VEXLO_OPEN_DENIED:
        Complain("adapter %u: %s", common_.dev, text);
        break;
    default:
        Complain("cannot open adapter %u", common_.dev);
        break;
    }
    return kExitFail;
}

bool XAdapter::Start(unsigned channel, const std::vector<VEXLO_FILTER>& filters, bool* exact) {
    CAN_INIT init;
    std::memset(&init, 0, sizeof(init));
    int fit = vexlo_filter_fit(filters.data(), static_cast<unsigned>(filters.size()), &init);
    if (fit < 0) {
        Complain("the library refused the filters of channel %u", channel);
        return false;
    }
    if (exact) *exact = fit == 1;
    init.BusTiming0 = common_.btr0;
    init.BusTiming1 = common_.btr1;
    init.ListenOnly = common_.listen_only ? 1 : 0;
    const unsigned dev = common_.dev;
    if (!Call([dev, channel, init]() mutable { return VCI_InitCAN(kDevType, dev, channel, &init); }) ||
        !Call([dev, channel] { return VCI_StartCAN(kDevType, dev, channel); })) {
        if (Present()) Complain("cannot start channel %u of adapter %u", channel, common_.dev);
        return false;
    }
    started_[channel] = true;
    return true;
}

unsigned XAdapter::Call(const std::function<unsigned()>& call) {
    unsigned result = 0;
    if (!Present()) return 0;
    const unsigned dev = common_.dev;
    if (caller_.Run(call, [dev] { return vexlo_present(dev) == VEXLO_GONE; }, &result)) return result;
    MarkGone();
    return 0;
}

bool XAdapter::Transmit(unsigned channel, const CAN_OBJ* frames, unsigned n, unsigned* took) {
    // The call gets a copy: one left behind at an unplug may still read it after this returns.
    auto copy = std::make_shared<std::vector<CAN_OBJ>>(frames, frames + n);
    const unsigned dev = common_.dev;
    *took = Call([dev, channel, copy] { return VCI_Transmit(kDevType, dev, channel, copy->data(),
                                                             static_cast<unsigned>(copy->size())); });
    if (*took > n) *took = 0;
    return !gone_;
}

bool XAdapter::Offer(unsigned channel, const CAN_OBJ* frames, unsigned n, unsigned* took) {
    const uint64_t until = MonoUs() + 1000000;
    *took = 0;
    while (!Stopping()) {
        if (!Transmit(channel, frames, n, took)) return false;
        if (*took > 0) return true;
        if (MonoUs() >= until) {
            Complain("the adapter refused every frame on channel %u for a second %s", channel, kAckHint);
            return false;
        }
        // The transmit buffer is full: let the bus drain it.
        if (!Pause(MonoUs() + 1000)) return false;
    }
    return false;
}

bool XAdapter::Status(unsigned channel, CAN_STAT* status) {
    auto out = std::make_shared<CAN_STAT>();
    std::memset(out.get(), 0, sizeof(CAN_STAT));
    const unsigned dev = common_.dev;
    if (!Call([dev, channel, out] { return VCI_ReadCANStatus(kDevType, dev, channel, out.get()); })) return false;
    *status = *out;
    return true;
}

bool XAdapter::Register(unsigned channel, unsigned char reg, unsigned char* value) {
    auto data = std::make_shared<std::vector<unsigned char>>(4, 0);
    (*data)[0] = reg;
    const unsigned dev = common_.dev;
    if (!Call([dev, channel, data] { return VCI_GetReference(kDevType, dev, channel, 1, data->data()); }))
        return false;
    *value = (*data)[0];
    return true;
}

bool XAdapter::BoardInfo(CAN_INFO* info) {
    auto out = std::make_shared<CAN_INFO>();
    std::memset(out.get(), 0, sizeof(CAN_INFO));
    const unsigned dev = common_.dev;
    if (!Call([dev, out] { return VCI_ReadBoardInfo(kDevType, dev, out.get()); })) return false;
    *info = *out;
    return true;
}

bool XAdapter::Present() {
    if (!gone_ && vexlo_present(common_.dev) == VEXLO_GONE) MarkGone();
    return !gone_;
}

void XAdapter::MarkGone() {
    if (!gone_) Complain("adapter %u was unplugged", common_.dev);
    gone_ = true;
}

bool XAdapter::Pause(uint64_t mono_us) {
    VEXLO_FRAME junk[64];
    while (!Stopping() && Present()) {
        uint64_t now = MonoUs();
        if (now >= mono_us) return true;
        if (mono_us - now < 2000) {
            // Short waits: a plain sleep is finer than poll's milliseconds.
            usleep(static_cast<useconds_t>(mono_us - now));
            continue;
        }
        // The readiness descriptors also wake on an unplug; the slice bounds the wait otherwise.
        pollfd fds[3] = {{StopFd(), POLLIN, 0}, {-1, POLLIN, 0}, {-1, POLLIN, 0}};
        for (unsigned ch = 0; ch < 2; ++ch)
            if (started_[ch]) fds[1 + ch].fd = vexlo_receive_fd(common_.dev, ch);
        uint64_t ms = (mono_us - now) / 1000;
        poll(fds, 3, static_cast<int>(ms > 100 ? 100 : ms));
        for (unsigned ch = 0; ch < 2; ++ch) {
            if (!(fds[1 + ch].revents & POLLIN)) continue;
            int got;
            while ((got = vexlo_receive(common_.dev, ch, junk, 64, 0)) == 64) {
            }
            if (got == VEXLO_GONE) MarkGone();
        }
    }
    return !gone_;
}

bool XAdapter::WaitSent(unsigned channel) {
    uint64_t until = MonoUs() + 1000000;
    while (!Stopping() && MonoUs() < until) {
        CAN_STAT st;
        if (Status(channel, &st) && (st.RegStatus & 0x04)) return true;
        if (!Pause(MonoUs() + 2000)) return false;
    }
    return Stopping();
}

void XAdapter::Close() {
    if (!open_) return;
    open_ = false;
    // An unplugged adapter answers nothing: closing it would wait seconds for each channel's
    // reset to time out. The process ends without closing it instead; the system frees it.
    if (gone_ || vexlo_present(common_.dev) == VEXLO_GONE) {
        EndWithoutCleanup();
        return;
    }
    const unsigned dev = common_.dev;
    for (unsigned ch = 0; ch < 2; ++ch)
        if (started_[ch]) Call([dev, ch] { return VCI_ResetCAN(kDevType, dev, ch); });
    // Unplugged meanwhile: a reset may still be waiting for its answer.
    if (gone_) {
        EndWithoutCleanup();
        return;
    }
    VCI_CloseDevice(kDevType, common_.dev);
}

}  // namespace vexlo_tool
