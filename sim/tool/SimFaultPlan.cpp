#include "tool/SimFaultPlan.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace vexlo_sim {

SimFaultPlan::SimFaultPlan(SimTestbed* bed, const SimToolOptions& opt) : bed_(bed) {
    for (const SimToolUnplug& u : opt.unplugs) {
        steps_.push_back(Step{u.at, Kind::kUnplug, u.adapter, 0});
        if (u.back >= 0) steps_.push_back(Step{u.back, Kind::kReplug, u.adapter, 0});
    }
    for (const SimToolDelay& d : opt.delays) steps_.push_back(Step{d.at, Kind::kDelay, d.adapter, d.ms});
    // Equal times keep the order of the command line.
    std::stable_sort(steps_.begin(), steps_.end(), [](const Step& a, const Step& b) { return a.at < b.at; });
}

void SimFaultPlan::Start() {
    t0_ = std::chrono::steady_clock::now();
    if (!steps_.empty()) thread_ = std::thread(&SimFaultPlan::Run, this);
}

void SimFaultPlan::Ended() {
    if (!steps_.empty()) std::fprintf(stderr, "vexlo-sim: %.3f s: the program ended\n", Elapsed());
}

double SimFaultPlan::Elapsed() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0_).count();
}

void SimFaultPlan::Stop() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        stop_ = true;
        cv_.notify_all();
    }
    if (thread_.joinable()) thread_.join();
}

void SimFaultPlan::Run() {
    std::unique_lock<std::mutex> lock(mu_);
    for (const Step& s : steps_) {
        auto when = t0_ + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                             std::chrono::duration<double>(s.at));
        if (cv_.wait_until(lock, when, [this] { return stop_; })) return;
        lock.unlock();
        Apply(s);
        lock.lock();
    }
}

void SimFaultPlan::Apply(const Step& s) {
    SimDevice& dev = bed_->Adapter(s.adapter);
    // The time the fault began: the program may see it before it is complete.
    const double at = Elapsed();
    switch (s.kind) {
    case Kind::kUnplug:
        std::fprintf(stderr, "vexlo-sim: %.3f s: adapter %u %s\n", at, s.adapter,
                     dev.Unplug() ? "unplugged" : "was not plugged in");
        break;
    case Kind::kReplug:
        std::fprintf(stderr, "vexlo-sim: %.3f s: adapter %u %s\n", at, s.adapter,
                     dev.Replug() ? "plugged back" : "could not be plugged back");
        break;
    case Kind::kDelay:
        dev.SetDelay(s.ms);
        std::fprintf(stderr, "vexlo-sim: %.3f s: adapter %u answers %u ms late\n", at, s.adapter, s.ms);
        break;
    }
}

}  // namespace vexlo_sim
