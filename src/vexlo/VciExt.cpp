// The extension calls: a channel's receive readiness descriptor, its counters, the version.
// They keep the frame of the VCI_* calls: look the device up, trace, check the arguments, check
// that the device is open.
#include <poll.h>

#include <cstddef>
#include <cstring>

#include "VciCommon.h"
#include "vexlo_ext.h"

extern "C" VEXLO_API int vexlo_receive_fd(unsigned int DevIndex, unsigned int CANIndex) {
    CanDev* dev = CanDev::FindDevice(DevIndex);
    XDBG(XLOG_GENERAL, "+++ Card=%d, Port=%d\n", DevIndex, CANIndex);
    int fd = -1;
    if (DevIndex > VCI_MAX_INDEX || CANIndex > 1) {
        XERR("invalid parameters\n");
    } else if (!dev) {
        XERR("device not opened\n");
    } else {
        // Made under the consumers' lock, so that no VCI_Receive resets it half made.
        XLock guard(&CanDev::fifolck_);
        fd = dev->ready_[CANIndex].Fd(dev->GetFifo(static_cast<int>(CANIndex)));
    }
    XDBG(XLOG_GENERAL, "--- ret=%d\n", fd);
    return fd;
}

extern "C" VEXLO_API unsigned int vexlo_get_stats(unsigned int DevIndex, unsigned int CANIndex, VEXLO_STATS* stats) {
    CanDev* dev = CanDev::FindDevice(DevIndex);
    XDBG(XLOG_GENERAL, "+++ Card=%d, Port=%d, pStats=%p\n", DevIndex, CANIndex, static_cast<void*>(stats));
    unsigned int result = 0;
    // A size that cannot hold the first counter is a caller that forgot to set it.
    if (DevIndex > VCI_MAX_INDEX || CANIndex > 1 || !stats ||
        stats->size < offsetof(VEXLO_STATS, queue_peak) + sizeof(stats->queue_peak)) {
        XERR("invalid parameters\n");
    } else if (!dev) {
        XERR("device not opened\n");
    } else {
        // Each counter is read on its own: a record taken while frames flow is not one instant,
        // but no count in it is below one the caller read before.
        const CanStats& c = dev->stats_[CANIndex];
        VEXLO_STATS s;
        memset(&s, 0, sizeof(s));
        s.queue_peak = c.queue_peak.load(std::memory_order_relaxed);
        s.rx_frames = c.rx_frames.load(std::memory_order_relaxed);
        s.rx_lost = c.rx_lost.load(std::memory_order_relaxed);
        s.tx_frames = c.tx_frames.load(std::memory_order_relaxed);
        s.bad_messages = dev->badmsgs_.load(std::memory_order_relaxed);
        for (int i = 0; i < 5; ++i) s.notices[i] = c.notices[i].load(std::memory_order_relaxed);
        // The caller's size stays as it set it; only the fields its record holds are written.
        const size_t n = stats->size < sizeof(s) ? stats->size : sizeof(s);
        memcpy(reinterpret_cast<char*>(stats) + sizeof(s.size), reinterpret_cast<const char*>(&s) + sizeof(s.size),
               n - sizeof(s.size));
        result = 1;
    }
    XDBG(XLOG_GENERAL, "--- ret=%d\n", result);
    return result;
}

extern "C" VEXLO_API const char* vexlo_version(void) { return VEXLO_VERSION; }

// Provisional: host time is the time the frame is taken.
extern "C" VEXLO_API int vexlo_receive(unsigned int DevIndex, unsigned int CANIndex, VEXLO_FRAME* frames,
                                       unsigned int count, int wait_ms) {
    CanDev* dev = CanDev::FindDevice(DevIndex);
    if (DevIndex > VCI_MAX_INDEX || CANIndex > 1 || !frames || count == 0 || !dev) return -1;
    int fd = vexlo_receive_fd(DevIndex, CANIndex);
    CanFifo* fifo = dev->GetFifo(static_cast<int>(CANIndex));
    for (int pass = 0; pass < 2; ++pass) {
        unsigned int got = 0;
        {
            XLock guard(&CanDev::fifolck_);
            CAN_OBJ obj;
            while (got < count && fifo->Pop(&obj)) {
                frames[got].frame = obj;
                frames[got].flags = 0;
                frames[got].reserved = 0;
                frames[got].host_us = XTime::Now();
                ++got;
            }
            dev->ready_[CANIndex].Taken(fifo);
        }
        if (got || pass == 1 || wait_ms == 0 || fd < 0) return static_cast<int>(got);
        struct pollfd p = {fd, POLLIN, 0};
        poll(&p, 1, wait_ms);
    }
    return 0;
}

extern "C" VEXLO_API int vexlo_present(unsigned int DevIndex) { return CanDev::FindDevice(DevIndex) ? 1 : -1; }
