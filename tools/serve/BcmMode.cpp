#include "BcmMode.h"

#include <cstring>

#include "Connection.h"

namespace vexlo_serve {

namespace {
// The shortest cycle: the bus carries at most about 21,000 frames a second.
const uint64_t kShortestCycleUs = 100;

// The frame's data bytes as the filters see them: none beyond its length.
void DataOf(const CAN_OBJ& f, unsigned char out[8]) {
    unsigned len = f.RemoteFrame ? 0 : f.DataLength < 8 ? f.DataLength : 8;
    for (unsigned i = 0; i < 8; ++i) out[i] = i < len ? f.Data[i] : 0;
}
}  // namespace

XBcmMode::Subscription* XBcmMode::Fresh(Key key) {
    auto it = subs_.find(key);
    if (it == subs_.end() && subs_.size() >= kMaxJobs) return nullptr;
    if (it != subs_.end()) {
        if (it->second.mux) mux_rows_ -= it->second.rows.size();
        subs_.erase(it);
    }
    return &subs_[key];
}

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
        job.frame = cmd.frame;
        job.period_us = cmd.interval_us;
        // The first frame at once, then on the grid.
        job.next = MonoUs();
        job.timer.At(c->loop(), job.next, [this, c, key] { Fire(c, key); });
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
    case XCommand::kDelete:
        if (!cyclic_.erase(key)) {
            *error = "no cyclic frame with this identifier";
            return false;
        }
        return true;
    case XCommand::kSubscribe:
    case XCommand::kFilter:
    case XCommand::kMuxFilter: {
        size_t rows = cmd.kind == XCommand::kMuxFilter ? cmd.rows.size() / 8 - 1 : 0;
        auto it = subs_.find(key);
        size_t replaced = it != subs_.end() && it->second.mux ? it->second.rows.size() : 0;
        if (mux_rows_ - replaced + rows > kMaxRows) {
            *error = "too many multiplexer rows";
            return false;
        }
        Subscription* s = Fresh(key);
        if (!s) {
            *error = "too many subscriptions";
            return false;
        }
        s->period_us = cmd.interval_us;
        s->content = cmd.kind != XCommand::kSubscribe;
        if (cmd.kind != XCommand::kMuxFilter) {
            s->rows.resize(1);
            std::memcpy(s->rows[0].mask, cmd.mask, sizeof(cmd.mask));
            s->rows[0].mask_len = cmd.mask_len;
            return true;
        }
        s->mux = true;
        std::memcpy(s->mux_mask, cmd.rows.data(), 8);
        s->rows.resize(rows);
        for (size_t i = 0; i < rows; ++i) {
            std::memcpy(s->rows[i].value, &cmd.rows[8 * (i + 1)], 8);
            std::memcpy(s->rows[i].mask, &cmd.rows[8 * (i + 1)], 8);
            s->rows[i].mask_len = 8;
        }
        mux_rows_ += rows;
        return true;
    }
    case XCommand::kUnsubscribe: {
        auto it = subs_.find(key);
        if (it == subs_.end()) {
            *error = "no subscription with this identifier";
            return false;
        }
        if (it->second.mux) mux_rows_ -= it->second.rows.size();
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
    // A full transmit queue skips this round; the grid stays. A refusal's answer may find the
    // client gone, which ends every job.
    c->Send(it->second.frame, false);
    it = cyclic_.find(key);
    if (it == cyclic_.end()) return;
    Cyclic& job = it->second;
    if (!job.period_us) {
        cyclic_.erase(it);
        return;
    }
    uint64_t now = MonoUs();
    job.next += job.period_us;
    if (job.next + job.period_us <= now) job.next = now + job.period_us;  // far behind: no burst
    job.timer.At(c->loop(), job.next, [this, c, key] { Fire(c, key); });
}

void XBcmMode::Offer(XConnection* c, Key key, Subscription* s, Row* row, const VEXLO_FRAME& f) {
    if (s->content && row->seen) {
        bool changed = f.frame.DataLength != row->last.DataLength;
        unsigned char now_data[8], last_data[8];
        DataOf(f.frame, now_data);
        DataOf(row->last, last_data);
        for (unsigned i = 0; i < row->mask_len && !changed; ++i) changed = (now_data[i] ^ last_data[i]) & row->mask[i];
        if (!changed) return;
    }
    row->seen = true;
    row->last = f.frame;
    uint64_t now = MonoUs();
    if (!s->period_us || (!s->timer.pending() && (!s->last_us || now >= s->last_us + s->period_us))) {
        s->last_us = now;
        c->Emit(f);
        return;
    }
    // Within the interval: the newest frame of each row goes out when it ends.
    row->held = true;
    row->waiting = f;
    if (!s->timer.pending()) s->timer.At(c->loop(), s->last_us + s->period_us, [this, c, key] { Release(c, key); });
}

void XBcmMode::Release(XConnection* c, Key key) {
    auto it = subs_.find(key);
    if (it == subs_.end()) return;
    Subscription& s = it->second;
    for (Row& row : s.rows) {
        if (!row.held) continue;
        row.held = false;
        s.last_us = MonoUs();
        c->Emit(row.waiting);
    }
    c->Flush();
}

void XBcmMode::OnFrames(XConnection* c, const VEXLO_FRAME* frames, unsigned count) {
    if (subs_.empty()) return;
    for (unsigned i = 0; i < count; ++i) {
        const VEXLO_FRAME& f = frames[i];
        if (f.flags & VEXLO_FRAME_ERROR) continue;
        Key key(f.frame.Id, f.frame.ExtendedFrame != 0);
        auto it = subs_.find(key);
        if (it == subs_.end()) continue;
        Subscription& s = it->second;
        if (!s.mux) {
            Offer(c, key, &s, &s.rows[0], f);
            continue;
        }
        unsigned char data[8];
        DataOf(f.frame, data);
        for (Row& row : s.rows) {
            bool match = true;
            for (unsigned b = 0; b < 8 && match; ++b) match = ((data[b] ^ row.value[b]) & s.mux_mask[b]) == 0;
            if (match) {
                Offer(c, key, &s, &row, f);
                break;
            }
        }
    }
}

void XBcmMode::Stop(XConnection*) {
    cyclic_.clear();
    subs_.clear();
    mux_rows_ = 0;
}

}  // namespace vexlo_serve
