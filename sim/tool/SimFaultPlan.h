// The timed faults of vexlo-sim's command line (--unplug, --answer-delay): a thread of their own
// applies each to the testbed at its time, counted in seconds from Start (the program's start),
// and says on stderr what it did and when; Ended says when the program ended by itself, so that how
// long a program took to notice a fault can be read from this output.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "tool/SimOptions.h"
#include "usb/SimTestbed.h"

namespace vexlo_sim {

class SimFaultPlan {
public:
    SimFaultPlan(SimTestbed* bed, const SimToolOptions& opt);
    ~SimFaultPlan() { Stop(); }
    SimFaultPlan(const SimFaultPlan&) = delete;
    SimFaultPlan& operator=(const SimFaultPlan&) = delete;

    void Start();
    // "vexlo-sim: SECONDS s: the program ended", when there are faults.
    void Ended();
    // Nothing more happens after this returns.
    void Stop();

private:
    enum class Kind { kUnplug, kReplug, kDelay };
    struct Step {
        double at;
        Kind kind;
        unsigned adapter;
        unsigned ms;
    };
    void Run();
    void Apply(const Step& s);
    double Elapsed() const;  // seconds since Start

    SimTestbed* bed_;
    std::vector<Step> steps_;  // in the order of their times
    std::mutex mu_;
    std::condition_variable cv_;
    bool stop_ = false;
    std::chrono::steady_clock::time_point t0_;
    std::thread thread_;
};

}  // namespace vexlo_sim
