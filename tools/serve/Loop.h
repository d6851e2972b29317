// The server's event loop: readiness of descriptors and timers, on one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

namespace vexlo_serve {

// Microseconds of CLOCK_MONOTONIC (timers) and of CLOCK_REALTIME (frame times, since the Epoch).
uint64_t MonoUs();
uint64_t RealUs();

class XTimer;

// An epoll loop with microsecond timers (a timerfd armed at the earliest one). Handlers run on the
// loop's thread, one at a time; a handler may watch, forget and schedule anything, including its
// own descriptor or timer: a forgotten descriptor's handler is never called again, even for
// events already collected in the same round. Timers are XTimers, each owned by the object its
// task works on, so that no task outlives that object; a cancelled timer is freed at once.
class XLoop {
public:
    using Handler = std::function<void(uint32_t events)>;  // EPOLLIN, EPOLLOUT, EPOLLERR, EPOLLHUP
    using Task = std::function<void()>;

    XLoop();
    ~XLoop();
    bool ok() const { return epoll_ >= 0 && timer_ >= 0; }

    // Calls `handler` while `fd` has any of `events` (level-triggered). One handler per fd.
    bool Watch(int fd, uint32_t events, Handler handler);
    void Change(int fd, uint32_t events);
    // Stops watching fd (call before closing it).
    void Forget(int fd);

    // Runs until Stop(); false when the loop's own calls failed.
    bool Run();
    void Stop() { stop_ = true; }
    // One round: waits up to timeout_ms (-1: no limit) for events or a timer and handles them.
    bool RunOnce(int timeout_ms);
    // Runs the earliest waiting timer now, as if its time had come (a test's clock); false when
    // none waits.
    bool RunEarliest();
    // Timers waiting to run, and descriptors watched.
    size_t timers() const { return timers_.size(); }
    size_t watched() const { return keys_.size(); }

private:
    friend class XTimer;
    struct Entry {
        int fd;
        Handler handler;
    };
    struct Timer {
        uint64_t due;
        Task task;
    };
    // Runs `task` once at CLOCK_MONOTONIC time `mono_us` (at once if past); returns its id (never 0).
    uint64_t At(uint64_t mono_us, Task task);
    // Forgets a timer that has not run yet (anything else is ignored).
    void Cancel(uint64_t id);
    void ArmTimer();
    void RunTimers();
    void RunTimer(uint64_t id);

    int epoll_ = -1;
    int timer_ = -1;
    bool stop_ = false;
    uint64_t next_key_ = 1;
    std::unordered_map<int, uint64_t> keys_;                      // fd -> key of its entry
    std::unordered_map<uint64_t, std::shared_ptr<Entry>> entries_;  // key -> entry
    uint64_t next_timer_ = 1;
    std::set<std::pair<uint64_t, uint64_t>> due_;   // (time, id) of every waiting timer
    std::unordered_map<uint64_t, Timer> timers_;    // id -> time and task
    uint64_t armed_ = 0;                            // time the timerfd is armed for, 0: none
};

// One pending task at most, owned by the object it works on (a member of it): starting the timer
// again replaces the task, and Cancel or the timer's destruction forgets it, so a task never runs
// for an object that is gone. The task may start its own timer again, or destroy the owner.
// Example: a connection's `XTimer linger_;` and `linger_.At(loop, MonoUs() + 2000000, [this] {
// Destroy(); });`.
class XTimer {
public:
    XTimer() = default;
    ~XTimer() { Cancel(); }
    XTimer(const XTimer&) = delete;
    XTimer& operator=(const XTimer&) = delete;

    // Runs `task` once at CLOCK_MONOTONIC time `mono_us` (at once if past) on `loop`'s thread.
    void At(XLoop* loop, uint64_t mono_us, XLoop::Task task);
    void Cancel();
    bool pending() const { return id_ != 0; }

private:
    XLoop* loop_ = nullptr;
    uint64_t id_ = 0;
};

}  // namespace vexlo_serve
