// BCM mode of the socketcand protocol: cyclic transmission and content-filtered reception.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Command.h"
#include "Loop.h"
#include "vexlo_ext.h"

namespace vexlo_serve {

class XConnection;

// The client's jobs: cyclic frames sent by the server's own timers (to the millisecond, on a
// fixed grid), and subscriptions that pass the frames of one identifier, each at most once per
// interval (the newest one at the end of it), optionally only when masked data bytes or the
// length changed. A multiplexed filter (muxfilter) first picks the row whose multiplexer value
// the frame carries (frames of no row are dropped) and checks changes against the last frame of
// that row, with that row's mask; its rows share the interval. The cyclic jobs run in every
// mode; subscriptions deliver only in BCM mode. At most kMaxJobs of each kind per client, and
// kMaxRows multiplexer rows in all; every timer ends with the job.
class XBcmMode {
public:
    static const size_t kMaxJobs = 256;
    static const size_t kMaxRows = 1024;

    // add, update, delete, subscribe, unsubscribe, filter, muxfilter. False with the error
    // reply's text.
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
        XTimer timer;
    };
    // One content check: a subscription or filter has one, a muxfilter one per multiplexer value.
    struct Row {
        unsigned char value[8] = {0};  // muxfilter: the multiplexer value (under the mux mask)
        unsigned char mask[8] = {0};   // the data bits whose change passes a frame
        unsigned mask_len = 0;
        bool seen = false;             // a frame passed before: the reference for changes
        CAN_OBJ last;
        bool held = false;             // a frame waits for the end of the interval
        VEXLO_FRAME waiting;
    };
    struct Subscription {
        uint64_t period_us = 0;
        bool content = false;          // pass only changes of the masked bytes
        bool mux = false;              // rows picked by the multiplexer bits in mux_mask
        unsigned char mux_mask[8] = {0};
        std::vector<Row> rows;
        uint64_t last_us = 0;          // host time of the last delivery (monotonic)
        XTimer timer;                  // the end of the interval, while frames are held
    };
    // The subscription of `key`, new and empty (a previous one ends); null when there are
    // kMaxJobs others.
    Subscription* Fresh(Key key);
    void Fire(XConnection* c, Key key);
    void Offer(XConnection* c, Key key, Subscription* s, Row* row, const VEXLO_FRAME& f);
    void Release(XConnection* c, Key key);

    std::map<Key, Cyclic> cyclic_;
    std::map<Key, Subscription> subs_;
    size_t mux_rows_ = 0;  // rows of every muxfilter
};

}  // namespace vexlo_serve
