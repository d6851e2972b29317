// Transmission off the event loop: VCI_Transmit waits for a USB round trip, so one thread sends
// for every client, from a bounded queue per client, taking the clients in turn.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "vexlo.h"

namespace vexlo_serve {

// The transmit thread and its queues. Queue ids are never reused. Each queue holds at most
// `capacity` frames counted from Push until their result has been taken (TakeResults), so memory
// stays bounded however fast a client sends and however slow the adapter is. The results of each
// queue come in the order of its frames; a readable Fd() says results wait. Frames the adapter
// does not take because its transmit buffer is full wait at the head of their queue and are
// offered again once the bus has had time to drain it (the other queues go on meanwhile); a
// queue whose frames the adapter has taken none of for a second has its waiting frames refused.
//
// Locking: one mutex, mu_, guards the queues, the results and the pause state. It is the only
// lock here and the innermost one: no VCI_* call runs while it is held and nothing else is locked
// under it, so any thread may call in. The event loop's thread uses every call but WaitIdle and
// never waits for the adapter: Hold() returns at once, and WaitIdle() (which waits out a
// transmission in progress, up to the library's 2 s) belongs on a thread that may wait, such as
// the one that closes an unplugged adapter. After Hold() and WaitIdle() no VCI_Transmit runs and
// none starts until Resume(), so the adapter may be closed meanwhile.
class XTransmitter {
public:
    struct Result {
        uint64_t queue;
        unsigned channel;
        CAN_OBJ frame;
        bool taken;        // accepted by the adapter
        uint64_t host_us;  // host time the adapter accepted it
    };

    explicit XTransmitter(unsigned capacity = 64) : capacity_(capacity) {}
    ~XTransmitter() { Stop(); }
    // Starts the thread (paused until Resume). False when the thread or eventfd cannot be made.
    bool Start();
    void Stop();
    // No new VCI_Transmit starts until Resume; returns at once.
    void Hold();
    // Waits until no VCI_Transmit runs.
    void WaitIdle();
    void Pause() {
        Hold();
        WaitIdle();
    }
    void Resume(unsigned dev);

    uint64_t AddQueue();
    // Drops the queue's waiting frames and its results still to come.
    void RemoveQueue(uint64_t queue);
    // True when none of the queue's frames waits, is being sent or has a result not yet taken.
    bool Idle(uint64_t queue);
    // Queues a frame for `channel`; false when the queue is full (or unknown).
    bool Push(uint64_t queue, unsigned channel, const CAN_OBJ& frame);
    // Drops every waiting frame: each comes back as a result not taken.
    void DropWaiting();
    // Moves the waiting results into *out (which is cleared first).
    void TakeResults(std::vector<Result>* out);
    int Fd() const { return event_; }
    unsigned capacity() const { return capacity_; }

private:
    struct Item {
        unsigned channel;
        CAN_OBJ frame;
    };
    struct Queue {
        uint64_t id;
        std::deque<Item> waiting;
        unsigned held = 0;       // frames pushed whose result has not been taken
        uint64_t retry_at = 0;   // CLOCK_MONOTONIC microseconds: not offered before then
        uint64_t stuck_since = 0;  // the first refusal since the adapter last took a frame, 0: none
    };
    void Main();
    Queue* Find(uint64_t id);
    void Signal();

    unsigned capacity_;
    std::mutex mu_;
    std::condition_variable cv_;   // wakes the thread: frames, resume, stop
    std::condition_variable idle_; // wakes Pause: the current transmission ended
    std::vector<Queue> queues_;
    size_t turn_ = 0;              // the queue whose turn is next
    std::vector<Result> results_;
    uint64_t next_id_ = 1;
    unsigned dev_ = 0;
    bool paused_ = true;
    bool busy_ = false;
    bool stop_ = false;
    int event_ = -1;
    std::thread thread_;
};

}  // namespace vexlo_serve
