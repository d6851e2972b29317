#include "Transmitter.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>

#include "Loop.h"

namespace vexlo_serve {

namespace {
// The device type of every VCI_* call: two channels.
const unsigned kDevType = 4;
// Frames handed to one VCI_Transmit: the library sends three per USB round trip.
const unsigned kBatch = 3;
// A full transmit buffer is offered the refused frames again after kRetryUs (a frame lasts 0.05 to
// 13 ms on the bus); kGiveUpUs without the adapter taking any frame, and they are refused.
const uint64_t kRetryUs = 2000;
const uint64_t kGiveUpUs = 1000000;
}  // namespace

bool XTransmitter::Start() {
    event_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (event_ < 0) return false;
    thread_ = std::thread([this] { Main(); });
    return true;
}

void XTransmitter::Stop() {
    if (thread_.joinable()) {
        {
            std::lock_guard<std::mutex> lock(mu_);
            stop_ = true;
        }
        cv_.notify_all();
        thread_.join();
    }
    if (event_ >= 0) close(event_);
    event_ = -1;
}

void XTransmitter::Hold() {
    std::lock_guard<std::mutex> lock(mu_);
    paused_ = true;
}

void XTransmitter::WaitIdle() {
    std::unique_lock<std::mutex> lock(mu_);
    idle_.wait(lock, [this] { return !busy_; });
}

void XTransmitter::Resume(unsigned dev) {
    {
        std::lock_guard<std::mutex> lock(mu_);
        dev_ = dev;
        paused_ = false;
    }
    cv_.notify_all();
}

XTransmitter::Queue* XTransmitter::Find(uint64_t id) {
    for (Queue& q : queues_)
        if (q.id == id) return &q;
    return nullptr;
}

uint64_t XTransmitter::AddQueue() {
    std::lock_guard<std::mutex> lock(mu_);
    Queue q;
    q.id = next_id_++;
    queues_.push_back(std::move(q));
    return queues_.back().id;
}

void XTransmitter::RemoveQueue(uint64_t queue) {
    std::lock_guard<std::mutex> lock(mu_);
    for (size_t i = 0; i < queues_.size(); ++i) {
        if (queues_[i].id != queue) continue;
        queues_.erase(queues_.begin() + static_cast<long>(i));
        if (turn_ > i) --turn_;
        break;
    }
    std::vector<Result> keep;
    for (Result& r : results_)
        if (r.queue != queue) keep.push_back(r);
    results_.swap(keep);
}

bool XTransmitter::Idle(uint64_t queue) {
    std::lock_guard<std::mutex> lock(mu_);
    Queue* q = Find(queue);
    return !q || q->held == 0;
}

bool XTransmitter::Push(uint64_t queue, unsigned channel, const CAN_OBJ& frame) {
    {
        std::lock_guard<std::mutex> lock(mu_);
        Queue* q = Find(queue);
        if (!q || q->held >= capacity_) return false;
        q->waiting.push_back(Item{channel, frame});
        ++q->held;
    }
    cv_.notify_one();
    return true;
}

void XTransmitter::DropWaiting() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        for (Queue& q : queues_) {
            for (const Item& it : q.waiting) results_.push_back(Result{q.id, it.channel, it.frame, false, RealUs()});
            q.waiting.clear();
        }
    }
    Signal();
}

void XTransmitter::TakeResults(std::vector<Result>* out) {
    uint64_t count;
    ssize_t r = read(event_, &count, sizeof(count));
    (void)r;
    out->clear();
    std::lock_guard<std::mutex> lock(mu_);
    out->swap(results_);
    for (const Result& res : *out) {
        Queue* q = Find(res.queue);
        if (q && q->held) --q->held;
    }
}

void XTransmitter::Signal() {
    uint64_t one = 1;
    ssize_t r = write(event_, &one, sizeof(one));
    (void)r;
}

void XTransmitter::Main() {
    std::unique_lock<std::mutex> lock(mu_);
    for (;;) {
        // The next queue in turn with a frame waiting that may be offered now.
        Queue* q = nullptr;
        uint64_t now = MonoUs(), wake = 0;
        if (!paused_) {
            for (size_t k = 0; k < queues_.size() && !q; ++k) {
                size_t i = (turn_ + k) % queues_.size();
                Queue& c = queues_[i];
                if (c.waiting.empty()) continue;
                if (c.retry_at > now) {
                    wake = wake && wake < c.retry_at ? wake : c.retry_at;
                    continue;
                }
                q = &c;
                turn_ = i + 1;
            }
        }
        if (stop_) return;
        if (!q) {
            if (wake) cv_.wait_for(lock, std::chrono::microseconds(wake - now));
            else cv_.wait(lock);
            continue;
        }
        // Up to one batch of the queue's frames for one channel, in order.
        CAN_OBJ frames[kBatch];
        unsigned n = 0;
        unsigned channel = q->waiting.front().channel;
        while (n < kBatch && !q->waiting.empty() && q->waiting.front().channel == channel) {
            frames[n++] = q->waiting.front().frame;
            q->waiting.pop_front();
        }
        uint64_t id = q->id;
        unsigned dev = dev_;
        busy_ = true;
        lock.unlock();
        unsigned taken = VCI_Transmit(kDevType, dev, channel, frames, n);
        if (taken > n) taken = 0;
        uint64_t real = RealUs();
        now = MonoUs();
        lock.lock();
        busy_ = false;
        idle_.notify_all();
        q = Find(id);
        if (!q) continue;
        for (unsigned i = 0; i < taken; ++i) results_.push_back(Result{id, channel, frames[i], true, real});
        if (taken == n) {
            q->stuck_since = 0;
        } else {
            // The adapter's buffer is full: the rest goes back to the head of the queue, in order, until
            // the adapter has taken nothing for kGiveUpUs; then the queue's frames are refused.
            if (taken > 0 || !q->stuck_since) q->stuck_since = now;
            if (now - q->stuck_since < kGiveUpUs) {
                for (unsigned i = n; i-- > taken;) q->waiting.push_front(Item{channel, frames[i]});
                q->retry_at = now + kRetryUs;
            } else {
                for (unsigned i = taken; i < n; ++i) results_.push_back(Result{id, channel, frames[i], false, real});
                for (const Item& it : q->waiting) results_.push_back(Result{id, it.channel, it.frame, false, real});
                q->waiting.clear();
                q->stuck_since = 0;
            }
        }
        if (taken || q->waiting.empty()) Signal();
    }
}

}  // namespace vexlo_serve
