#include "model/SimController.h"

#include "model/SimBitTiming.h"

namespace vexlo_sim {

SimController::SimController(unsigned index) : index_(index) {}

void SimController::Configure(uint8_t btr0, uint8_t btr1, bool listen_only) {
    btr0_ = btr0;
    btr1_ = btr1;
    bitrate_ = SimBitTiming::BitRate(btr0, btr1);
    listen_only_ = listen_only;
    state_ = SimChanState::kInitialised;
    txq_.clear();
    txq_ready_.clear();
}

bool SimController::Start(uint64_t now) {
    if (state_ == SimChanState::kReset) return false;
    if (state_ != SimChanState::kStarted) {
        state_ = SimChanState::kStarted;
        started_at_ = now;
        busy_ns_ = 0;
    }
    return true;
}

void SimController::Reset() {
    if (state_ == SimChanState::kStarted) state_ = SimChanState::kInitialised;
    txq_.clear();
    txq_ready_.clear();
    rec_ = tec_ = 0;
    bus_off_ = false;
    tx_complete_ = true;
    overrun_ = false;
}

uint8_t SimController::ReadReg(uint8_t addr) const {
    bool reset_mode = state_ != SimChanState::kStarted;
    switch (addr) {
    case kRegMode:
        return static_cast<uint8_t>((reset_mode || bus_off_ ? 0x01 : 0) | (listen_only_ ? 0x02 : 0) |
                                    (filter_.single_ ? 0x08 : 0));
    case kRegStatus: {
        if (reset_mode) return 0x3C | (bus_off_ ? 0x80 : 0) | (ErrorStatus() ? 0x40 : 0);
        uint8_t s = 0;
        if (bus_off_) s |= 0x80;
        if (ErrorStatus()) s |= 0x40;
        if (!txq_.empty()) s |= 0x20;
        if (tx_complete_) s |= 0x08;
        if (txq_.empty()) s |= 0x04;
        if (overrun_) s |= 0x02;
        return s;
    }
    case kRegBtr0: return btr0_;
    case kRegBtr1: return btr1_;
    case kRegArbLost: return alc_;
    case kRegErrCode: return ecc_;
    case kRegWarnLimit: return ewl_;
    case kRegRxErr: return rec_;
    case kRegTxErr: return tec_;
    default:
        // Acceptance code and mask registers are visible in reset mode at 0x10..0x17.
        if (reset_mode && addr >= 0x10 && addr <= 0x13)
            return static_cast<uint8_t>(filter_.code_ >> (8 * (3 - (addr - 0x10))));
        if (reset_mode && addr >= 0x14 && addr <= 0x17)
            return static_cast<uint8_t>(filter_.mask_ >> (8 * (3 - (addr - 0x14))));
        return 0;
    }
}

void SimController::WriteReg(uint8_t addr, uint8_t value, uint64_t now) {
    bool reset_mode = state_ != SimChanState::kStarted;
    switch (addr) {
    case kRegMode:
        if (reset_mode) {
            listen_only_ = (value & 0x02) != 0;
            filter_.single_ = (value & 0x08) != 0;
            if (!(value & 0x01)) Start(now);
        } else if (value & 0x01) {
            state_ = SimChanState::kInitialised;
        }
        break;
    case kRegWarnLimit:
        if (reset_mode) ewl_ = value;
        break;
    case kRegRxErr:
        if (reset_mode) rec_ = value;
        break;
    case kRegTxErr:
        if (reset_mode) {
            tec_ = value;
            bus_off_ = value == 255;
        }
        break;
    default:
        break;  // read-only or unimplemented: ignored as the controller ignores it
    }
}

bool SimController::Queue(const SimFrame& f, uint64_t now) {
    if (!OnBus() || listen_only_ || txq_.size() >= tx_capacity_) return false;
    txq_.push_back(f);
    // The controller's identifier registers hold 11 bits for a standard frame and 29 for an
    // extended one: higher bits the host sent never reach the bus.
    txq_.back().id &= f.ext ? 0x1FFFFFFFu : 0x7FFu;
    txq_ready_.push_back(now);
    tx_complete_ = false;
    return true;
}

void SimController::Notify(bool was_warn, bool was_passive, std::vector<SimRecord>* notices,
                           uint32_t ts) {
    if (was_warn != ErrorStatus())
        notices->push_back(SimRecord::Notice(kEvWarning, index_, ts));
    if (was_passive != ErrorPassive())
        notices->push_back(SimRecord::Notice(kEvPassive, index_, ts, ecc_, rec_, tec_));
}

void SimController::OnTxDone() {
    if (tec_ > 0) --tec_;
    txq_.pop_front();
    txq_ready_.pop_front();
    tx_complete_ = txq_.empty();
}

void SimController::OnAckError(std::vector<SimRecord>* notices, uint32_t ts) {
    bool warn = ErrorStatus(), passive = ErrorPassive();
    ecc_ = kAckErrorCode;
    // Once error passive, an ACK error no longer counts: a lone transmitter sits at 128.
    if (!passive) {
        notices->push_back(SimRecord::Notice(kEvBusError, index_, ts));
        tec_ = static_cast<uint8_t>(tec_ + 8 > 255 ? 255 : tec_ + 8);
    }
    Notify(warn, passive, notices, ts);
    if (!txq_.empty() && (txq_.front().mode & 1)) {  // single shot: no retransmission
        txq_.pop_front();
        txq_ready_.pop_front();
    }
}

void SimController::OnAckErrorHeard(std::vector<SimRecord>* notices, uint32_t ts) {
    ecc_ = kAckFlagHeardCode;
    notices->push_back(SimRecord::Notice(kEvBusError, index_, ts));
}

void SimController::OnRxDone() {
    if (rec_ > 0) --rec_;
}

void SimController::OnArbitrationLost(uint8_t bit, std::vector<SimRecord>* notices, uint32_t ts) {
    alc_ = bit;
    notices->push_back(SimRecord::Notice(kEvArbLost, index_, ts, bit));
}

void SimController::AccountBus(uint64_t busy_ns) {
    if (state_ == SimChanState::kStarted) busy_ns_ += busy_ns;
}

uint32_t SimController::IdleCounter(uint64_t now) const {
    if (state_ != SimChanState::kStarted) return 0;
    uint64_t total = now > started_at_ ? now - started_at_ : 0;
    uint64_t idle = total > busy_ns_ ? total - busy_ns_ : 0;
    return static_cast<uint32_t>(idle / 100000);
}

}  // namespace vexlo_sim
