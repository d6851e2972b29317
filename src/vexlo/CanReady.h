// Receive readiness of one channel: an eventfd that polls readable while the channel has something
// for the application, behind vexlo_receive_fd. It is made on first use; until then the reception
// path pays one relaxed load per message for it and makes no system call.
//
// Something waits (Pending) while the channel's ring holds a frame, once the adapter is gone
// (unplugged: sticky), and, once vexlo_receive has been called on the channel (Arm), while a
// notice waits for it. A program that only uses VCI_Receive never has its descriptor held
// readable by notices.
//
// The eventfd's counter is the readiness: a producer (the reception path, or the dispatch that
// learns of an unplug) adds 1 when it made something wait; a consumer (VCI_Receive,
// VCI_ClearBuffer, vexlo_receive) that leaves nothing waiting reads the counter back to 0 and then
// looks once more. Level semantics: a readable state may be spurious (what waited was taken before
// the application looked), something waiting with the descriptor not readable never happens. The
// argument is in CanReady.cpp.
//
// On close the descriptor is retired, not closed: it is left readable, so that a thread waiting
// on it in poll, select or epoll wakes (closing would take it out of an epoll set before the
// waiter collects the event), and is closed when its device index is opened again or when more
// than kRetired descriptors wait retired.
#pragma once

#include <atomic>

#include "CanFifo.h"
#include "CanNotes.h"

class CanReady {
public:
    enum : unsigned { kRetired = 8 };

    CanReady() : fd_(-1), notes_(nullptr), gone_(nullptr) {}
    ~CanReady();  // a descriptor not retired: wakes any poller, then closes it
    CanReady(const CanReady&) = delete;
    CanReady& operator=(const CanReady&) = delete;

    // The channel's notices and the device's unplug flag, looked at with the ring.
    void Bind(CanNotes* notes, const std::atomic<bool>* gone) {
        notes_ = notes;
        gone_ = gone;
    }

    // The descriptor, made on the first call; -1 (with an error line) when it cannot be made.
    // Caller holds CanDev::fifolck_.
    int Fd(CanFifo* fifo);

    // vexlo_receive is in use: notices count from now on. Caller holds CanDev::fifolck_.
    void Arm() {
        if (armed_.load(std::memory_order_relaxed)) return;
        armed_.store(true, std::memory_order_relaxed);
        Order();
    }

    // Reception path, after a message pushed frames to this ring (its write count having been
    // `w0` before the message) and/or recorded notices (`noted`).
    void Pushed(CanFifo* fifo, U32 w0, bool noted) {
        Order();
        int fd = fd_.load(std::memory_order_relaxed);
        if (fd < 0) return;
        if (noted && armed_.load(std::memory_order_relaxed)) {
            Signal(fd);
            return;
        }
        U32 w1 = fifo->wr_.load(std::memory_order_relaxed);
        U32 rd = fifo->rd_.load(std::memory_order_relaxed);
        // w0 <= rd < w1, modulo 2^32: everything older than the message has been taken and a
        // frame of it still waits. (rd < w0: older frames wait, whose arrival made it readable.)
        if (rd - w0 < w1 - w0) Signal(fd);
    }

    // The adapter is gone; the device's flag has been raised before.
    void Gone() {
        Order();
        int fd = fd_.load(std::memory_order_relaxed);
        if (fd >= 0) Signal(fd);
    }

    // Consumer side, after taking frames or notices or clearing, while holding CanDev::fifolck_.
    void Taken(CanFifo* fifo) {
        int fd = fd_.load(std::memory_order_relaxed);
        if (fd >= 0 && !Pending(fifo)) Reset(fd, fifo);
    }

    // VCI_CloseDevice, once nothing of the device runs any more: the descriptor is left readable
    // and kept open for device index `index` (see above).
    void Retire(unsigned index);
    // Device index `index` was opened: its retired descriptors are closed.
    static void Reopened(unsigned index);

private:
    static void Signal(int fd);
    void Reset(int fd, CanFifo* fifo);
    bool Pending(CanFifo* fifo) const {
        return fifo->wr_.load(std::memory_order_relaxed) != fifo->rd_.load(std::memory_order_relaxed) ||
               (gone_ && gone_->load(std::memory_order_relaxed)) ||
               (notes_ && armed_.load(std::memory_order_relaxed) && !notes_->Empty());
    }
    // Every side passes here between its stores and its loads: read-modify-writes of one variable
    // are totally ordered, so of two sides the later one sees what the earlier stored before it.
    // (A fence would do the same, but the thread sanitizer cannot follow fences.)
    void Order() { sync_.fetch_add(1, std::memory_order_acq_rel); }

    std::atomic<int> fd_;
    std::atomic<U32> sync_{0};
    std::atomic<bool> armed_{false};
    CanNotes* notes_;
    const std::atomic<bool>* gone_;
};
