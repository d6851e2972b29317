#include "Loop.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

namespace vexlo_serve {

uint64_t MonoUs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000 + static_cast<uint64_t>(ts.tv_nsec) / 1000;
}

uint64_t RealUs() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000 + static_cast<uint64_t>(ts.tv_nsec) / 1000;
}

XLoop::XLoop() {
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    timer_ = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (epoll_ >= 0 && timer_ >= 0) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u64 = 0;  // key 0: the timer
        epoll_ctl(epoll_, EPOLL_CTL_ADD, timer_, &ev);
    }
}

XLoop::~XLoop() {
    if (timer_ >= 0) close(timer_);
    if (epoll_ >= 0) close(epoll_);
}

bool XLoop::Watch(int fd, uint32_t events, Handler handler) {
    Forget(fd);
    uint64_t key = next_key_++;
    epoll_event ev{};
    ev.events = events;
    ev.data.u64 = key;
    if (epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &ev) != 0) return false;
    keys_[fd] = key;
    entries_[key] = std::make_shared<Entry>(Entry{fd, std::move(handler)});
    return true;
}

void XLoop::Change(int fd, uint32_t events) {
    auto k = keys_.find(fd);
    if (k == keys_.end()) return;
    epoll_event ev{};
    ev.events = events;
    ev.data.u64 = k->second;
    epoll_ctl(epoll_, EPOLL_CTL_MOD, fd, &ev);
}

void XLoop::Forget(int fd) {
    auto k = keys_.find(fd);
    if (k == keys_.end()) return;
    epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
    entries_.erase(k->second);
    keys_.erase(k);
}

uint64_t XLoop::At(uint64_t mono_us, Task task) {
    uint64_t id = next_timer_++;
    timers_.emplace(id, Timer{mono_us, std::move(task)});
    due_.emplace(mono_us, id);
    ArmTimer();
    return id;
}

void XLoop::Cancel(uint64_t id) {
    auto t = timers_.find(id);
    if (t == timers_.end()) return;
    due_.erase(std::make_pair(t->second.due, id));
    timers_.erase(t);
    ArmTimer();
}

void XLoop::ArmTimer() {
    // 0 means "not armed": a task due at time 0 is armed for 1.
    uint64_t when = due_.empty() ? 0 : due_.begin()->first ? due_.begin()->first : 1;
    if (when == armed_) return;
    armed_ = when;
    itimerspec its{};
    if (when) {
        its.it_value.tv_sec = static_cast<time_t>(when / 1000000);
        its.it_value.tv_nsec = static_cast<long>(when % 1000000) * 1000;
    }
    timerfd_settime(timer_, TFD_TIMER_ABSTIME, &its, nullptr);
}

void XLoop::RunTimers() {
    uint64_t count;
    ssize_t r = read(timer_, &count, sizeof(count));
    (void)r;
    armed_ = 0;
    uint64_t now = MonoUs();
    // Only what is due now: a task that schedules itself at once runs in the next round.
    std::vector<uint64_t> ready;
    while (!due_.empty() && due_.begin()->first <= now) {
        ready.push_back(due_.begin()->second);
        due_.erase(due_.begin());
    }
    for (uint64_t id : ready) RunTimer(id);
    ArmTimer();
}

void XLoop::RunTimer(uint64_t id) {
    auto t = timers_.find(id);
    if (t == timers_.end()) return;  // cancelled by a task of this round
    Task task = std::move(t->second.task);
    timers_.erase(t);
    task();
}

bool XLoop::RunEarliest() {
    if (due_.empty()) return false;
    uint64_t id = due_.begin()->second;
    due_.erase(due_.begin());
    RunTimer(id);
    ArmTimer();
    return true;
}

void XTimer::At(XLoop* loop, uint64_t mono_us, XLoop::Task task) {
    Cancel();
    loop_ = loop;
    // The id is cleared before the task runs: the task may start this timer again or destroy it.
    id_ = loop->At(mono_us, [this, task = std::move(task)] {
        id_ = 0;
        task();
    });
}

void XTimer::Cancel() {
    if (!id_) return;
    loop_->Cancel(id_);
    id_ = 0;
}

bool XLoop::Run() {
    stop_ = false;
    while (!stop_)
        if (!RunOnce(-1)) return false;
    return true;
}

bool XLoop::RunOnce(int timeout_ms) {
    epoll_event events[64];
    int n = epoll_wait(epoll_, events, 64, timeout_ms);
    if (n < 0) return errno == EINTR;
    for (int i = 0; i < n && !stop_; ++i) {
        uint64_t key = events[i].data.u64;  // a copy: the kernel's structure is packed
        if (key == 0) {
            RunTimers();
            continue;
        }
        auto e = entries_.find(key);
        if (e == entries_.end()) continue;  // forgotten earlier in this round
        std::shared_ptr<Entry> entry = e->second;
        entry->handler(events[i].events);
    }
    return true;
}

}  // namespace vexlo_serve
