// The timed faults of vexlo-sim's command line (--unplug, --answer-delay): a thread of their own
// applies each to the testbed at its time, counted in seconds from Start (the program's start),
// and says on stderr what it did.
#pragma once

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

    SimTestbed* bed_;
    std::vector<Step> steps_;  // in the order of their times
    std::mutex mu_;
    std::condition_variable cv_;
    bool stop_ = false;
    std::thread thread_;
};

}  // namespace vexlo_sim
