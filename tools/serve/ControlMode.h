// Control mode of the socketcand protocol: the bus's statistics at an interval.
#pragma once

#include <cstdint>

#include "Loop.h"

namespace vexlo_serve {

class XConnection;

class XControlMode {
public:
    // "< statistics MS >": "< stat ... >" every ms milliseconds, the first ms from now; 0 stops them.
    void Statistics(XConnection* c, unsigned bus, unsigned ms);
    void Stop(XConnection* c);

private:
    void Tick(XConnection* c);
    unsigned bus_ = 0;
    uint64_t period_us_ = 0;
    uint64_t next_ = 0;
    XTimer timer_;
};

}  // namespace vexlo_serve
