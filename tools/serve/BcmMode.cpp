#include "BcmMode.h"

#include <cstring>

#include "Connection.h"

namespace vexlo_serve {

namespace {
// The shortest cycle: the bus carries at most about 21,000 frames a second.
const uint64_t kShortestCycleUs = 100;
}  // namespace

bool XBcmMode::Handle(XConnection* c, const XCommand& cmd, std::string* error) {
    Key key(cmd.id, cmd.extended);
    switch (cmd.kind) {
    case XCommand::kAdd: {
        if (cmd.interval_us && cmd.interval_us < kShortestCycleUs) {
            *error = "interval shorter than 100 us";
            return false;
        }
        auto it = cyclic_.find(key);
        if (it == cyclic_.end() && cyclic_.size() >= kMaxJobs) {
            *error = "too many cyclic frames";
            return false;
        }
        Cyclic& job = cyclic_[key];
        if (job.timer) c->loop()->Cancel(job.timer);
        job.frame = cmd.frame;
        job.period_us = cmd.interval_us;
        // The first frame at once, then on the grid.
        job.next = MonoUs();
        job.timer = c->loop()->At(job.next, [this, c, key] { Fire(c, key); });
        return true;
    }
    case XCommand::kUpdate: {
        auto it = cyclic_.find(key);
        if (it == cyclic_.end()) {
            *error = "no cyclic frame with this identifier";
            return false;
        }
        it->second.frame = cmd.frame;
        return true;
    }
    case XCommand::kDelete: {
        auto it = cyclic_.find(key);
        if (it == cyclic_.end()) {
            *error = "no cyclic frame with this identifier";
            return false;
        }
        c->loop()->Cancel(it->second.timer);
        cyclic_.erase(it);
        return true;
    }
    case XCommand::kSubscribe:
    case XCommand::kFilter: {
        auto it = subs_.find(key);
        if (it == subs_.end() && subs_.size() >= kMaxJobs) {
            *error = "too many subscriptions";
            return false;
        }
        Subscription& s = subs_[key];
        if (s.timer) c->loop()->Cancel(s.timer);
        s = Subscription();
        s.period_us = cmd.interval_us;
        s.content = cmd.kind == XCommand::kFilter;
        std::memcpy(s.mask, cmd.mask, sizeof(s.mask));
        s.mask_len = cmd.mask_len;
        return true;
    }
    case XCommand::kUnsubscribe: {
        auto it = subs_.find(key);
        if (it == subs_.end()) {
            *error = "no subscription with this identifier";
            return false;
        }
        if (it->second.timer) c->loop()->Cancel(it->second.timer);
        subs_.erase(it);
        return true;
    }
    default:
        *error = "unknown command";
        return false;
    }
}

void XBcmMode::Fire(XConnection* c, Key key) {
    auto it = cyclic_.find(key);
    if (it == cyclic_.end()) return;
    Cyclic& job = it->second;
    job.timer = 0;
    // A full transmit queue skips this round; the grid stays.
    c->Send(job.frame, false);
    if (!job.period_us) {
        cyclic_.erase(it);
        return;
    }
    uint64_t now = MonoUs();
    job.next += job.period_us;
    if (job.next + job.period_us <= now) job.next = now + job.period_us;  // far behind: no burst
    job.timer = c->loop()->At(job.next, [this, c, key] { Fire(c, key); });
}

bool XBcmMode::Changed(const Subscription& s, const CAN_OBJ& f) const {
    if (!s.seen || f.DataLength != s.last.DataLength) return true;
    for (unsigned i = 0; i < s.mask_len; ++i)
        if ((f.Data[i] ^ s.last.Data[i]) & s.mask[i]) return true;
    return false;
}

void XBcmMode::Offer(XConnection* c, Subscription* s, const VEXLO_FRAME& f) {
    if (s->content && !Changed(*s, f.frame)) return;
    s->seen = true;
    s->last = f.frame;
    uint64_t now = MonoUs();
    if (!s->period_us || !s->last_us || now >= s->last_us + s->period_us) {
        s->last_us = now;
        c->Emit(f);
        return;
    }
    // Within the interval: the newest frame goes out when it ends.
    s->held = f;
    if (s->pending) return;
    s->pending = true;
    Key key(f.frame.Id, f.frame.ExtendedFrame != 0);
    s->timer = c->loop()->At(s->last_us + s->period_us, [this, c, key] {
        auto it = subs_.find(key);
        if (it == subs_.end()) return;
        Subscription& sub = it->second;
        sub.timer = 0;
        sub.pending = false;
        sub.last_us = MonoUs();
        c->Emit(sub.held);
        c->Flush();
    });
}

void XBcmMode::OnFrames(XConnection* c, const VEXLO_FRAME* frames, unsigned count) {
    if (subs_.empty()) return;
    for (unsigned i = 0; i < count; ++i) {
        const VEXLO_FRAME& f = frames[i];
        if (f.flags & VEXLO_FRAME_ERROR) continue;
        auto it = subs_.find(Key(f.frame.Id, f.frame.ExtendedFrame != 0));
        if (it != subs_.end()) Offer(c, &it->second, f);
    }
}

void XBcmMode::Stop(XConnection* c) {
    for (auto& j : cyclic_)
        if (j.second.timer) c->loop()->Cancel(j.second.timer);
    for (auto& s : subs_)
        if (s.second.timer) c->loop()->Cancel(s.second.timer);
    cyclic_.clear();
    subs_.clear();
}

}  // namespace vexlo_serve
