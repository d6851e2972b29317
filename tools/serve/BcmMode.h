// BCM mode of the socketcand protocol: cyclic transmission and content-filtered reception.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "Command.h"
#include "vexlo_ext.h"

namespace vexlo_serve {

class XConnection;

// The client's jobs: cyclic frames sent by the server's own timers (to the millisecond, on a
// fixed grid), and subscriptions that pass the frames of one identifier, each at most once per
// interval (the newest one at the end of it), optionally only when masked data bytes or the
// length changed. The cyclic jobs run in every mode; subscriptions deliver only in BCM mode.
// At most kMaxJobs of each kind per client.
class XBcmMode {
public:
    static const size_t kMaxJobs = 256;

    // add, update, delete, subscribe, unsubscribe, filter. False with the error reply's text.
    bool Handle(XConnection* c, const XCommand& cmd, std::string* error);
    void OnFrames(XConnection* c, const VEXLO_FRAME* frames, unsigned count);
    // Ends every job (the connection closes).
    void Stop(XConnection* c);

private:
    using Key = std::pair<unsigned, bool>;  // identifier, extended
    struct Cyclic {
        CAN_OBJ frame;
        uint64_t period_us = 0;
        uint64_t next = 0;
        uint64_t timer = 0;
    };
    struct Subscription {
        uint64_t period_us = 0;
        bool content = false;         // a filter: pass only changes of the masked bytes
        unsigned char mask[8] = {0};
        unsigned mask_len = 0;
        bool seen = false;            // a frame passed before: the reference for changes
        CAN_OBJ last;
        uint64_t last_us = 0;         // host time of the last delivery (monotonic)
        bool pending = false;         // a frame waits for the end of the interval
        VEXLO_FRAME held;
        uint64_t timer = 0;
    };
    void Fire(XConnection* c, Key key);
    void Offer(XConnection* c, Subscription* s, const VEXLO_FRAME& f);
    bool Changed(const Subscription& s, const CAN_OBJ& f) const;

    std::map<Key, Cyclic> cyclic_;
    std::map<Key, Subscription> subs_;
};

}  // namespace vexlo_serve
