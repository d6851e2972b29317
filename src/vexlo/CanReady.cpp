// Receive readiness: the eventfd of one channel and the sides that keep it in step with the ring,
// the notices and the unplug flag.
//
// Why no frame is ever missed. Write P for the producer (the reception path; one at a time) and C
// for a consumer (an application call holding CanDev::fifolck_; one at a time). The only thing that
// can make the descriptor unreadable is C's read in Reset, so look at the last such reset, C*:
//
//   P, per message:  push frames w0..w1-1 (stores wr_)  | order | load fd_, rd_ | rd in [w0, w1): write
//   C*, Reset:       store rd_ (Pop or Clear) | read efd | order | load wr_     | wr != rd: write
//
// "order" is Order(): a read-modify-write of sync_, so of two such steps one comes first and the
// other sees everything stored before it.
//
// Suppose frames wait in the ring once everything has settled, yet the counter is 0.
// - If C*'s load of wr_ saw a frame, C* wrote after its own read: the counter is not 0.
// - Otherwise C* saw the ring empty at r = wr_. The frame at position r was pushed later, by a
//   message [w0, w1) of P with w0 <= r < w1. C*'s load missed P's store of r + 1, which comes before
//   P's order step; so C*'s order step came first, and P's loads after its own see C*'s
//   store rd_ = r or a later one (rd >= r >= w0), and they see fd_ (stored before C* could exist).
//   If rd < w1, P writes; and P's write comes after C*'s read, since had it come before, the
//   eventfd's own lock would have made P's store of r + 1 visible to C*'s later load of wr_.
//   If rd = w1, other consumers (which did not reset, C* being the last) took the whole message; the
//   next message then starts at w0' = w1 <= its own rd, and the same holds for it, and so on: the
//   last message either writes or finds every frame taken, and then the ring is empty.
// - With no reset ever, the same chain starts at Fd(), which looks at the ring after publishing fd_
//   (order step between) and writes if a frame waits.
// A producer write that comes after the consumer took the frame is the spurious readable state that
// level semantics allows; the next VCI_Receive that finds the ring empty clears it.
//
// Notices and the unplug. P, after a message that recorded a notice, and the dispatch that learns
// of an unplug (G), follow the same pattern with a simpler test:
//
//   P, notice:  store the notice (notes wr) | order | load fd_, armed_ | armed: write
//   G, unplug:  store gone_                 | order | load fd_         | write
//   C*, Reset:  ... read efd                | order | load notes, armed_, gone_ | pending: write
//
// Suppose a notice waits (armed_ set) or gone_ is set once everything has settled, yet the
// counter is 0. If C*'s loads saw it, C* wrote after its read. Otherwise they missed the producer's
// store, so C*'s order step came first and the producer's loads see fd_ and armed_ as C* left them;
// the producer writes, and after C*'s read by the eventfd argument above. That needs armed_ set
// before C*'s order step: armed_ only goes from false to true, in Arm, with an order step, by a
// vexlo_receive call that then takes what waits under the same lock. A notice whose producer's
// order step came after the Arm's sees armed_ and writes; one whose order step came before it is
// seen by the call's own take, which resets only when nothing waits. Fd() looks at all three after
// publishing fd_. Nothing stores gone_ or armed_ back.
#include "CanReady.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <utility>

// Retired descriptors, oldest first, with their device index.
static XLock g_retired_lock;
static std::deque<std::pair<unsigned, int>> g_retired;

CanReady::~CanReady() {
    int fd = fd_.load(std::memory_order_relaxed);
    if (fd < 0) return;
    // A thread still blocked in poll() wakes and finds the device closed rather than waiting on.
    Signal(fd);
    close(fd);
}

void CanReady::Retire(unsigned index) {
    int fd = fd_.exchange(-1, std::memory_order_relaxed);
    if (fd < 0) return;
    Signal(fd);
    XLock guard(&g_retired_lock);
    g_retired.emplace_back(index, fd);
    while (g_retired.size() > kRetired) {
        close(g_retired.front().second);
        g_retired.pop_front();
    }
}

void CanReady::Reopened(unsigned index) {
    XLock guard(&g_retired_lock);
    for (auto it = g_retired.begin(); it != g_retired.end();) {
        if (it->first == index) {
            close(it->second);
            it = g_retired.erase(it);
        } else {
            ++it;
        }
    }
}

int CanReady::Fd(CanFifo* fifo) {
    int fd = fd_.load(std::memory_order_relaxed);
    if (fd >= 0) return fd;
    fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0) {
        XERR("eventfd failed: errno=%d\n", errno);
        return -1;
    }
    fd_.store(fd, std::memory_order_relaxed);
    Order();
    if (Pending(fifo)) Signal(fd);
    return fd;
}

void CanReady::Signal(int fd) {
    // Cannot fail short of a counter near 2^64; a failure would only leave it readable.
    eventfd_write(fd, 1);
}

void CanReady::Reset(int fd, CanFifo* fifo) {
    eventfd_t v;
    eventfd_read(fd, &v);  // EAGAIN when it was not readable: nothing to clear
    Order();
    if (Pending(fifo)) Signal(fd);
}
