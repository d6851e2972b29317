#include "Adapter.h"

#include <poll.h>
#include <unistd.h>

#include <cstring>

#include "Process.h"

namespace vexlo_tool {

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
    if (!VCI_InitCAN(kDevType, common_.dev, channel, &init) || !VCI_StartCAN(kDevType, common_.dev, channel)) {
        if (Present()) Complain("cannot start channel %u of adapter %u", channel, common_.dev);
        return false;
    }
    started_[channel] = true;
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
        std::memset(&st, 0, sizeof(st));
        if (VCI_ReadCANStatus(kDevType, common_.dev, channel, &st) && (st.RegStatus & 0x04)) return true;
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
    for (unsigned ch = 0; ch < 2; ++ch)
        if (started_[ch]) VCI_ResetCAN(kDevType, common_.dev, ch);
    VCI_CloseDevice(kDevType, common_.dev);
}

}  // namespace vexlo_tool
