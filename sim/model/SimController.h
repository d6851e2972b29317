// One CAN channel of the adapter: the controller's state, configuration, register file, error
// counters with fault confinement, the bounded transmit buffer and the status counters.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "model/SimFilter.h"
#include "model/SimWire.h"

namespace vexlo_sim {

// kReset: never configured since power-on; kInitialised: timing set, controller in reset mode;
// kStarted: on the bus.
enum class SimChanState { kReset, kInitialised, kStarted };

// Register addresses as the status call reads them.
enum SimReg : uint8_t {
    kRegMode = 0x00,
    kRegStatus = 0x02,
    kRegBtr0 = 0x06,  // the two timing bytes last programmed (command 0x03), readable in any mode
    kRegBtr1 = 0x07,
    kRegArbLost = 0x0B,
    kRegErrCode = 0x0C,
    kRegWarnLimit = 0x0D,
    kRegRxErr = 0x0E,
    kRegTxErr = 0x0F,
};

class SimController {
public:
    static constexpr uint8_t kDefaultWarnLimit = 96;
    static constexpr uint8_t kAckErrorCode = 0xD9;  // "other" error, transmitting, ACK slot
    static constexpr uint8_t kAckFlagHeardCode = 0x7B;  // form error, receiving, ACK delimiter
    static constexpr size_t kDefaultTxCapacity = 16;

    explicit SimController(unsigned index);

    // Command 0x03: timing and listen-only. Leaves the bus if started; pending frames are dropped.
    void Configure(uint8_t btr0, uint8_t btr1, bool listen_only);
    // Command 0x04.
    void SetFilter(uint32_t code, uint32_t mask, bool single) { filter_.Set(code, mask, single); }
    // Command 0x0E: false when the channel was never configured.
    bool Start(uint64_t now);
    // Command 0x0F: back to reset mode, configuration kept, transmit buffer and counters cleared.
    void Reset();

    uint8_t ReadReg(uint8_t addr) const;
    // Register write of command 0x0C. Counters, warning limit and the mode flags follow the
    // controller: writable only in reset mode. Clearing bit 0 of the mode register starts.
    void WriteReg(uint8_t addr, uint8_t value, uint64_t now);

    bool OnBus() const { return state_ == SimChanState::kStarted && !bus_off_; }
    bool Acknowledges() const { return OnBus() && !listen_only_; }
    bool ErrorPassive() const { return tec_ >= 128 || rec_ >= 128; }

    // Queue a frame from the host, its identifier cut to the bits of its format; false when the
    // buffer is full or the channel cannot send.
    bool Queue(const SimFrame& f, uint64_t now);
    size_t TxFree() const { return tx_capacity_ - txq_.size(); }

    // Fault confinement. Each appends the notices the change of state produces.
    void OnTxDone();
    void OnAckError(std::vector<SimRecord>* notices, uint32_t ts);
    // A listen-only controller hears another node's frame go unacknowledged: that node's active
    // error flag breaks the ACK delimiter. A bus error; listen-only, its counters stay.
    void OnAckErrorHeard(std::vector<SimRecord>* notices, uint32_t ts);
    void OnRxDone();
    void OnArbitrationLost(uint8_t bit, std::vector<SimRecord>* notices, uint32_t ts);

    // Status counters of command 0x06: bus busy and bus idle time while started, in 100 us.
    void AccountBus(uint64_t busy_ns);
    uint32_t BusyCounter() const { return static_cast<uint32_t>(busy_ns_ / 100000); }
    uint32_t IdleCounter(uint64_t now) const;

    unsigned index_;
    SimChanState state_ = SimChanState::kReset;
    uint8_t btr0_ = 0, btr1_ = 0;
    uint32_t bitrate_ = 0;
    bool listen_only_ = false;
    SimFilter filter_;
    uint8_t ewl_ = kDefaultWarnLimit;
    uint8_t rec_ = 0, tec_ = 0;
    uint8_t ecc_ = 0, alc_ = 0;
    bool bus_off_ = false;
    bool tx_complete_ = true;
    bool overrun_ = false;
    std::deque<SimFrame> txq_;
    std::deque<uint64_t> txq_ready_;  // when each queued frame became ready
    size_t tx_capacity_ = kDefaultTxCapacity;
    uint64_t started_at_ = 0;
    uint64_t busy_ns_ = 0;

private:
    bool ErrorStatus() const { return tec_ >= ewl_ || rec_ >= ewl_; }
    void Notify(bool was_warn, bool was_passive, std::vector<SimRecord>* notices, uint32_t ts);
};

}  // namespace vexlo_sim
