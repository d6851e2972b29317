// Receive readiness of one channel: an eventfd that polls readable while the channel's ring holds
// a frame, behind vexlo_receive_fd. It is made on first use; until then the reception path pays
// one relaxed load per message for it and makes no system call.
//
// The eventfd's counter is the readiness: the producer (the reception path) adds 1 when a message
// took the ring from empty to non-empty; a consumer (VCI_Receive, VCI_ClearBuffer) that leaves the
// ring empty reads the counter back to 0 and then looks at the ring once more. Level semantics: a
// readable state may be spurious (the frame was taken before the application looked), a frame
// waiting in the ring with the descriptor not readable never happens. The argument is in
// CanReady.cpp.
#pragma once

#include <atomic>

#include "CanFifo.h"

class CanReady {
public:
    CanReady() : fd_(-1) {}
    ~CanReady();  // wakes any poller, then closes the descriptor
    CanReady(const CanReady&) = delete;
    CanReady& operator=(const CanReady&) = delete;

    // The descriptor, made on the first call; -1 (with an error line) when it cannot be made.
    // Caller holds CanDev::fifolck_.
    int Fd(CanFifo* fifo);

    // Reception path, after a message pushed frames to this ring, its write count having been
    // `w0` before the message.
    void Pushed(CanFifo* fifo, U32 w0) {
        Order();
        int fd = fd_.load(std::memory_order_relaxed);
        if (fd < 0) return;
        U32 w1 = fifo->wr_.load(std::memory_order_relaxed);
        U32 rd = fifo->rd_.load(std::memory_order_relaxed);
        // w0 <= rd < w1, modulo 2^32: everything older than the message has been taken and a
        // frame of it still waits. (rd < w0: older frames wait, whose arrival made it readable.)
        if (rd - w0 < w1 - w0) Signal(fd);
    }

    // Consumer side, after taking frames or clearing, while holding CanDev::fifolck_.
    void Taken(CanFifo* fifo) {
        int fd = fd_.load(std::memory_order_relaxed);
        if (fd >= 0 && fifo->Size() == 0) Reset(fd, fifo);
    }

private:
    static void Signal(int fd);
    void Reset(int fd, CanFifo* fifo);
    // Every side passes here between its stores and its loads: read-modify-writes of one variable
    // are totally ordered, so of two sides the later one sees what the earlier stored before it.
    // (A fence would do the same, but the thread sanitizer cannot follow fences.)
    void Order() { sync_.fetch_add(1, std::memory_order_acq_rel); }

    std::atomic<int> fd_;
    std::atomic<U32> sync_{0};
};
