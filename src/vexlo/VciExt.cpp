// The extension calls: a channel's receive readiness descriptor, its counters, the version, its
// frames with their host time and notices, and whether the adapter is still there.
// They keep the frame of the VCI_* calls: look the device up, trace, check the arguments, check
// that the device is open.
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <climits>
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
        s.unplugged = dev->gone_.load() ? 1 : 0;
        // The caller's size stays as it set it; only the fields its record holds whole are
        // written. From offset 8 on every field is 8 bytes, 8-aligned: the size rounded down to 8.
        static_assert(offsetof(VEXLO_STATS, rx_frames) == 8 && sizeof(VEXLO_STATS) % 8 == 0, "8-byte fields from 8");
        const size_t whole = stats->size & ~static_cast<size_t>(7);
        const size_t n = whole < sizeof(s) ? whole : sizeof(s);
        memcpy(reinterpret_cast<char*>(stats) + sizeof(s.size), reinterpret_cast<const char*>(&s) + sizeof(s.size),
               n - sizeof(s.size));
        result = 1;
    }
    XDBG(XLOG_GENERAL, "--- ret=%d\n", result);
    return result;
}

extern "C" VEXLO_API const char* vexlo_version(void) { return VEXLO_VERSION; }

// Takes frames and the notices due before them, in order, under CanDev::fifolck_: a notice noted
// at ring position p comes before the frame at p, so it is due once the frames before p are gone.
static unsigned TakeFrames(CanDev* dev, unsigned int ch, VEXLO_FRAME* out, unsigned int count) {
    CanFifo* fifo = dev->GetFifo(static_cast<int>(ch));
    CanNotes* notes = &dev->notes_[ch];
    unsigned int got = 0;
    while (got < count) {
        VEXLO_FRAME* f = &out[got];
        CanNote note;
        if (notes->Peek(&note)) {
            // Distances back from the newest frame: the note is due when it is at least as far
            // back as the next frame to take (always, with the ring empty).
            const U32 wr = fifo->wr_.load(std::memory_order_acquire);
            if (wr - note.pos >= wr - fifo->rd_.load(std::memory_order_relaxed)) {
                CanNoteFrame(note, &f->frame);
                f->flags = VEXLO_FRAME_ERROR;
                f->reserved = 0;
                f->host_us = note.host_us;
                notes->Drop();
                ++got;
                continue;
            }
        }
        U64 host = 0;
        if (!fifo->Pop(&f->frame, &host)) break;
        f->host_us = host;
        f->flags = 0;
        f->reserved = 0;
        CAN_TRACE_FRAME(ch, f->frame);
        ++got;
    }
    dev->ready_[ch].Taken(fifo);
    return got;
}

static U64 MonotonicMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<U64>(ts.tv_sec) * 1000u + static_cast<U64>(ts.tv_nsec) / 1000000u;
}

static int Receive(CanDev* dev, unsigned int ch, VEXLO_FRAME* frames, unsigned int count, int wait_ms) {
    CanFifo* fifo = dev->GetFifo(static_cast<int>(ch));
    int fd;
    {
        XLock guard(&CanDev::fifolck_);
        fd = dev->ready_[ch].Fd(fifo);
        dev->ready_[ch].Arm();
    }
    const U64 start = MonotonicMs();
    for (;;) {
        unsigned int got;
        U64 lost;
        {
            XLock guard(&CanDev::fifolck_);
            got = TakeFrames(dev, ch, frames, count);
            lost = dev->notes_[ch].TakeDropped();
        }
        if (lost) XWRN("notices lost: channel=%d, count=%llu\n", ch, static_cast<unsigned long long>(lost));
        if (got) return static_cast<int>(got);
        if (dev->gone_.load()) return VEXLO_GONE;
        int left = -1;
        if (wait_ms >= 0) {
            const U64 spent = MonotonicMs() - start;
            if (spent >= static_cast<U64>(wait_ms)) return 0;
            left = wait_ms - static_cast<int>(spent);
        }
        // Without a descriptor (it could not be made, and that was reported) look every 10 ms.
        if (fd < 0) {
            usleep(10000);
            continue;
        }
        struct pollfd p = {fd, POLLIN, 0};
        poll(&p, 1, left);
    }
}

extern "C" VEXLO_API int vexlo_receive(unsigned int DevIndex, unsigned int CANIndex, VEXLO_FRAME* frames,
                                       unsigned int count, int wait_ms) {
    CanDev* dev = CanDev::FindDevice(DevIndex);
    XDBG(XLOG_GENERAL | XLOG_RECV, "+++ Card=%d, Port=%d, pFrames=%p, Count=%d, Wait=%d\n", DevIndex, CANIndex,
         static_cast<void*>(frames), count, wait_ms);
    int result = -1;
    if (DevIndex > VCI_MAX_INDEX || CANIndex > 1 || !frames || count == 0 || wait_ms < -1) {
        XERR("invalid parameters\n");
    } else if (!dev) {
        XERR("device not opened\n");
    } else {
        // The result is an int: larger arrays are filled as far as an int counts.
        result = Receive(dev, CANIndex, frames, count > INT_MAX ? INT_MAX : count, wait_ms);
    }
    XDBG(XLOG_GENERAL | XLOG_RECV, "--- ret=%d\n", result);
    return result;
}

// A query, not a failure: a device that is not open is answered with -1 and no error line.
extern "C" VEXLO_API int vexlo_present(unsigned int DevIndex) {
    CanDev* dev = CanDev::FindDevice(DevIndex);
    XDBG(XLOG_GENERAL, "+++ Card=%d\n", DevIndex);
    int result = -1;
    if (dev) result = dev->gone_.load() ? VEXLO_GONE : 1;
    XDBG(XLOG_GENERAL, "--- ret=%d\n", result);
    return result;
}
