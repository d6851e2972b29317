// The server's event loop: readiness of descriptors and timers, on one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

namespace vexlo_serve {

// Microseconds of CLOCK_MONOTONIC (timers) and of CLOCK_REALTIME (frame times, since the Epoch).
uint64_t MonoUs();
uint64_t RealUs();

// An epoll loop with microsecond timers (a timerfd armed at the earliest one). Handlers run on the
// loop's thread, one at a time; a handler may watch, forget and schedule anything, including its
// own descriptor or timer: a forgotten descriptor's handler is never called again, even for
// events already collected in the same round.
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

    // Runs `task` once at CLOCK_MONOTONIC time `mono_us` (at once if past); returns its id (never 0).
    uint64_t At(uint64_t mono_us, Task task);
    void Cancel(uint64_t id);

    // Runs until Stop(); false when the loop's own calls failed.
    bool Run();
    void Stop() { stop_ = true; }

private:
    struct Entry {
        int fd;
        Handler handler;
    };
    void ArmTimer();
    void RunTimers();

    int epoll_ = -1;
    int timer_ = -1;
    bool stop_ = false;
    uint64_t next_key_ = 1;
    std::unordered_map<int, uint64_t> keys_;                      // fd -> key of its entry
    std::unordered_map<uint64_t, std::shared_ptr<Entry>> entries_;  // key -> entry
    uint64_t next_timer_ = 1;
    std::multimap<uint64_t, uint64_t> due_;         // time -> timer id
    std::unordered_map<uint64_t, Task> timers_;     // id -> task
    uint64_t armed_ = 0;                            // time the timerfd is armed for, 0: none
};

}  // namespace vexlo_serve
