#include "Caller.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace vexlo_tool {

struct XCaller::Shared {
    std::mutex mu;
    std::condition_variable cv;
    std::function<unsigned()> call;  // handed over, not taken yet
    bool busy = false;               // handed over and not returned yet
    unsigned result = 0;
    bool quit = false;
    std::thread thread;
};

XCaller::XCaller() : shared_(std::make_shared<Shared>()) {}

XCaller::~XCaller() {
    std::unique_lock<std::mutex> lock(shared_->mu);
    if (!shared_->thread.joinable()) return;
    shared_->quit = true;
    if (shared_->busy) {
        shared_->thread.detach();  // it ends once its call returns, if the process is still there
        return;
    }
    shared_->cv.notify_all();
    lock.unlock();
    shared_->thread.join();
}

bool XCaller::Run(const std::function<unsigned()>& call, const std::function<bool()>& gone, unsigned* result) {
    std::shared_ptr<Shared> s = shared_;
    std::unique_lock<std::mutex> lock(s->mu);
    if (s->busy) return false;
    if (!s->thread.joinable()) {
        s->thread = std::thread([s] {
            std::unique_lock<std::mutex> held(s->mu);
            for (;;) {
                s->cv.wait(held, [&] { return s->quit || s->call; });
                if (!s->call) return;
                std::function<unsigned()> job;
                job.swap(s->call);
                held.unlock();
                const unsigned r = job();
                job = nullptr;  // its captures go with the call
                held.lock();
                s->result = r;
                s->busy = false;
                s->cv.notify_all();
            }
        });
    }
    s->call = call;
    s->busy = true;
    s->cv.notify_all();
    while (s->busy) {
        if (s->cv.wait_for(lock, std::chrono::milliseconds(20)) != std::cv_status::timeout) continue;
        lock.unlock();
        const bool away = gone();
        lock.lock();
        if (away && s->busy) return false;
    }
    *result = s->result;
    return true;
}

}  // namespace vexlo_tool
