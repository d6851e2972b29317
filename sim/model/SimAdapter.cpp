#include "model/SimAdapter.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "model/SimBitTiming.h"

namespace vexlo_sim {
namespace {

// Arbitration order of the frames' headers: lower wins. Standard data frames beat standard remote
// frames of the same base identifier, which beat extended frames (SRR and IDE are recessive).
uint64_t ArbKey(const SimFrame& f) {
    uint32_t base = f.ext ? (f.id >> 18) & 0x7FF : f.id & 0x7FF;
    uint64_t k = static_cast<uint64_t>(base) << 32;
    if (f.ext)
        k |= (1ull << 31) | (static_cast<uint64_t>(f.id & 0x3FFFF) << 1) | (f.rtr ? 1 : 0);
    else if (f.rtr)
        k |= 1ull << 30;
    return k;
}

// Bit of the arbitration field (0 = first identifier bit) where `loser` saw its recessive bit
// overwritten by `winner`.
uint8_t ArbBit(const SimFrame& winner, const SimFrame& loser) {
    uint64_t x = ArbKey(winner) ^ ArbKey(loser);
    if (x == 0) return 0;
    int pos = 63 - __builtin_clzll(x);
    if (pos >= 32) return static_cast<uint8_t>(42 - pos);
    return static_cast<uint8_t>(11 + (31 - pos));
}

}  // namespace

SimAdapter::SimAdapter(unsigned position, const SimIdentity& id, uint64_t power_on_ns)
    : position_(position), id_(id), ch_{SimController(0), SimController(1)}, power_on_(power_on_ns) {
    if (id_.serial.empty()) id_.serial = DefaultSerial(position);
}

std::string SimAdapter::DefaultSerial(unsigned position) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "VXSIM%04u", position % 10000);
    return buf;
}

void SimAdapter::Emit(int fault_code, Bytes ack, uint64_t now) {
    SimFaults& f = faults_;
    if (f.ack != SimAckFault::kNone && f.ack_count != 0 &&
        (f.ack_code == kAnyAck || f.ack_code == fault_code)) {
        if (f.ack_count > 0) --f.ack_count;
        switch (f.ack) {
        case SimAckFault::kNoAck: return;
        case SimAckFault::kWrongCode: ack[1] = static_cast<uint8_t>(ack[1] + 1); break;
        case SimAckFault::kNoAcceptBit: ack[2] &= 0x7F; break;
        case SimAckFault::kShort: ack.resize(2); break;
        case SimAckFault::kZeroLength: ack.clear(); break;
        case SimAckFault::kNone: break;
        }
    }
    acks_.push_back(Ack{std::move(ack), now + static_cast<uint64_t>(f.delay_ms) * 1000000});
}

// Answer layout: lead byte, code, status (bit 7 accepted, low four bits the number of bytes after
// byte 2), a zero byte, then the data from byte 4.
void SimAdapter::Answer(uint8_t code, bool ok, const Bytes& data, uint64_t now) {
    Bytes ack = {kAckLead, code, static_cast<uint8_t>((ok ? 0x80 : 0) | ((data.size() + 1) & 0x0F)), 0};
    ack.insert(ack.end(), data.begin(), data.end());
    Emit(code, std::move(ack), now);
}

void SimAdapter::AnswerText(uint8_t code, const std::string& text, uint64_t now) {
    std::string t = text.substr(0, kMaxText);
    Answer(code, true, Bytes(t.begin(), t.end()), now);
}

void SimAdapter::OnCommand(const uint8_t* pkt, size_t len, uint64_t now) {
    if (len < 2) return;  // nothing to answer to
    uint8_t code = pkt[1];
    if (len < 4 || pkt[0] != 0x12) {
        Answer(code, false, {}, now);
        return;
    }
    uint8_t sel = len > 4 ? pkt[4] : 0;
    unsigned chn = (sel >> 4) & 3;
    bool ch_ok = len > 4 && chn < kChannels;
    SimController* c = ch_ok ? &ch_[chn] : nullptr;
    switch (code) {
    case kCmdHwVersion:
    case kCmdFwVersion: {
        uint16_t v = code == kCmdHwVersion ? id_.hw_version : id_.fw_version;
        Answer(code, true, {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8)}, now);
        return;
    }
    case kCmdChannelCount: Answer(code, true, {id_.channels}, now); return;
    case kCmdSerial: AnswerText(code, id_.serial, now); return;
    case kCmdIdText: AnswerText(code, id_.id_text, now); return;
    case kCmdTiming:
        if (!c || len < 7) break;
        c->Configure(pkt[5], pkt[6], (sel & 0x80) != 0);
        Answer(code, true, {}, now);
        return;
    case kCmdFilter:
        if (!c || len < 13) break;
        c->SetFilter(GetBe32(pkt + 5), GetBe32(pkt + 9), (sel & 0x40) != 0);
        Answer(code, true, {}, now);
        return;
    case kCmdStart:
        if (!c) break;
        Answer(code, c->Start(now), {}, now);
        return;
    case kCmdReset:
        if (!c) break;
        c->Reset();
        Answer(code, true, {}, now);
        return;
    case kCmdStatusCounters: {
        if (!c) break;
        Bytes d(9, 0);
        PutLe32(d.data() + 1, c->BusyCounter());
        PutLe32(d.data() + 5, c->IdleCounter(now));
        Answer(code, true, d, now);
        return;
    }
    case kCmdRegRead:
        if (!c || len < 6) break;
        Answer(code, true, {c->ReadReg(pkt[5])}, now);
        return;
    case kCmdRegWrite:
        if (!c || len < 7) break;
        c->WriteReg(pkt[5], pkt[6], now);
        Answer(code, true, {}, now);
        return;
    default:
        break;
    }
    Answer(code, false, {}, now);  // unknown code, bad channel or short packet
}

void SimAdapter::OnTransmit(const uint8_t* pkt, size_t len, uint64_t now) {
    Advance(now);  // frames already on the bus free their buffer slots first
    unsigned accepted = 0;
    for (size_t off = 0; off + kRecordSize <= len; off += kRecordSize) {
        if (faults_.tx_accept >= 0 && accepted >= static_cast<unsigned>(faults_.tx_accept)) break;
        SimRecord r = SimRecord::Decode(pkt + off);
        if (r.Channel() >= kChannels || r.event != kEvFrame) break;
        if (!ch_[r.Channel()].Queue(r.ToFrame(), now)) break;
        ++accepted;
    }
    Bytes ack = {kAckLead, kTxAckByte1, static_cast<uint8_t>(accepted > 255 ? 255 : accepted), 0};
    Emit(kTxAck, std::move(ack), now);
}

bool SimAdapter::TakeAck(uint64_t now, Bytes* out) {
    if (acks_.empty() || acks_.front().due > now) return false;
    *out = std::move(acks_.front().bytes);
    acks_.pop_front();
    return true;
}

bool SimAdapter::Busy() const {
    for (unsigned c = 0; c < kChannels; ++c) {
        if (!ch_[c].OnBus()) continue;
        if (!ch_[c].txq_.empty() || gen_[c].Running()) return true;
    }
    return false;
}

void SimAdapter::Push(const SimRecord& r) {
    if (in_.PushRecord(r)) return;
    ++rx_dropped_;
    unsigned c = r.Channel() & 1;
    ch_[c].overrun_ = true;
    overrun_pending_[c] = true;
}

void SimAdapter::Deliver(unsigned ch, const SimFrame& f, uint64_t at) {
    if (!ch_[ch].filter_.Accepts(f)) return;
    ch_[ch].OnRxDone();
    Push(SimRecord::FromFrame(f, ch, Stamp(at)));
}

void SimAdapter::InjectFrame(unsigned channel, const SimFrame& f, uint64_t now) {
    Push(SimRecord::FromFrame(f, channel, Stamp(now)));
}

void SimAdapter::InjectNotice(unsigned channel, uint8_t code, uint8_t d0, uint8_t d1, uint8_t d2,
                              uint64_t now) {
    Push(SimRecord::Notice(code, channel, Stamp(now), d0, d1, d2));
}

void SimAdapter::Advance(uint64_t now) {
    for (unsigned c = 0; c < kChannels; ++c) {
        if (overrun_pending_[c] && in_.Records() < in_.capacity_) {
            overrun_pending_[c] = false;
            in_.PushRecord(SimRecord::Notice(kEvOverrun, c, Stamp(now)));
        }
        if (!ch_[c].OnBus()) gen_[c].Hold(now);
    }
    AdvanceBus(0, now);
    if (!cabled_) AdvanceBus(1, now);
}

void SimAdapter::AdvanceBus(unsigned seg, uint64_t now) {
    struct Cand {
        bool gen;
        unsigned ch;
        SimFrame f;
        uint64_t ready;
    };
    std::vector<SimRecord> notices;
    for (;;) {
        Cand cands[2 * kChannels];
        int n = 0;
        for (unsigned c = 0; c < kChannels; ++c) {
            if (!OnSegment(c, seg) || !ch_[c].OnBus()) continue;
            if (!ch_[c].txq_.empty()) cands[n++] = Cand{false, c, ch_[c].txq_.front(), ch_[c].txq_ready_.front()};
            if (gen_[c].Running()) cands[n++] = Cand{true, c, gen_[c].Peek(), gen_[c].Due()};
        }
        if (n == 0) return;
        uint64_t first = cands[0].ready;
        for (int i = 1; i < n; ++i) first = std::min(first, cands[i].ready);
        uint64_t start = std::max(bus_free_[seg], first);
        if (start > now) return;

        int win = -1;
        for (int i = 0; i < n; ++i)
            if (cands[i].ready <= start && (win < 0 || ArbKey(cands[i].f) < ArbKey(cands[win].f))) win = i;
        const Cand& w = cands[win];
        uint32_t rate = ch_[w.ch].bitrate_;

        // The analyser acknowledges, and so does any other node at the same bit rate: a
        // controller on the bus that is not listen-only, or a running generator.
        bool acked = static_cast<bool>(analyser_);
        for (unsigned c = 0; c < kChannels; ++c) {
            if (!OnSegment(c, seg) || !ch_[c].OnBus() || ch_[c].bitrate_ != rate) continue;
            if ((w.gen || c != w.ch) && ch_[c].Acknowledges()) acked = true;
            if ((!w.gen || c != w.ch) && gen_[c].Running()) acked = true;
        }
        unsigned bits = acked ? SimBitTiming::FrameBits(w.f) : SimBitTiming::AckErrorBits(w.f);
        uint64_t end = start + SimBitTiming::Duration(bits, rate);
        if (end > now) return;  // still on the wire
        uint32_t ts = Stamp(end);

        for (int i = 0; i < n; ++i)
            if (i != win && !cands[i].gen && cands[i].ready <= start)
                ch_[cands[i].ch].OnArbitrationLost(ArbBit(w.f, cands[i].f), &notices, ts);
        for (const SimRecord& r : notices) Push(r);  // arbitration is lost before the frame ends
        notices.clear();

        SimFrame f = w.f;  // w points into cands, which the calls below do not touch
        if (acked && analyser_) analyser_(w.ch, f, end);
        if (acked) {
            for (unsigned c = 0; c < kChannels; ++c) {
                if (!OnSegment(c, seg) || !ch_[c].OnBus() || ch_[c].bitrate_ != rate) continue;
                bool self = !w.gen && c == w.ch;
                if (self && !(f.mode & 2)) continue;  // self reception only when asked for
                Deliver(c, f, end);
            }
            if (w.gen) gen_[w.ch].Advance(end);
            else ch_[w.ch].OnTxDone();
        } else {
            // The listen-only controllers hear the sender's error flag while it is error active
            // (a generator always is); a passive flag leaves the bus recessive.
            bool flag = w.gen || !ch_[w.ch].ErrorPassive();
            for (unsigned c = 0; c < kChannels; ++c) {
                if (flag && (w.gen || c != w.ch) && OnSegment(c, seg) && ch_[c].OnBus() && ch_[c].listen_only_ &&
                    ch_[c].bitrate_ == rate)
                    ch_[c].OnAckErrorHeard(&notices, ts);
            }
            if (w.gen) gen_[w.ch].Advance(end);  // a generator does not retry: the frame is dropped
            else ch_[w.ch].OnAckError(&notices, ts);
        }
        for (unsigned c = 0; c < kChannels; ++c)
            if (OnSegment(c, seg)) ch_[c].AccountBus(end - start);
        bus_free_[seg] = end;
        for (const SimRecord& r : notices) Push(r);
        notices.clear();
    }
}

}  // namespace vexlo_sim
