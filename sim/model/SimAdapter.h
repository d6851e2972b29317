// The adapter as the host sees it through its endpoints, without any USB: command packets in,
// acknowledgements out; transmit packets in, their acknowledgement out; frames and notices of the
// simulated bus out on the data IN stream.
//
// Time is passed in by the caller as nanoseconds of a monotonic clock, so the model is
// deterministic under test. Time stamps of received records count 100 microsecond units since the
// adapter was powered (constructed), wrapping at 32 bits.
//
// The bus: channel 0 and channel 1 are cabled together by default, so a frame sent on one is
// received on the other when both are started at the same bit rate. Uncabled, each channel has a
// bus of its own. A generator is a remote node on its channel's bus that runs at that channel's bit
// rate while the channel is on the bus.
//
// An analyser, when set, is a listening node on every bus of the adapter: like any error-active
// node it acknowledges each frame, whatever the bit rate, and it is told of every frame that
// completes, with the channel (or that channel's generator) that sent it and when the frame ended.
//
// Status counters (command 0x06): the first counts bus busy time, the second bus idle time, both in
// 100 us units since the channel was started, so the host's percentage is the bus load.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "model/SimController.h"
#include "model/SimFaults.h"
#include "model/SimGenerator.h"
#include "model/SimInStream.h"
#include "model/SimWire.h"

namespace vexlo_sim {

struct SimIdentity {
    uint16_t hw_version = 0x0210;
    uint16_t fw_version = 0x0318;
    uint8_t channels = kChannels;
    std::string serial;              // empty: derived from the adapter's position
    std::string id_text = "VEXLO-SIM";
};

class SimAdapter {
public:
    static constexpr uint8_t kAckLead = 0x12;   // byte 0 of every answer
    static constexpr uint8_t kTxAckByte1 = 0x02;  // byte 1 of the answer to a transmit packet
    static constexpr size_t kMaxText = 14;

    SimAdapter(unsigned position, const SimIdentity& id, uint64_t power_on_ns);

    // Default serial number of the adapter at `position`: "VXSIM" and four digits.
    static std::string DefaultSerial(unsigned position);

    void OnCommand(const uint8_t* pkt, size_t len, uint64_t now);   // packet on 0x01
    void OnTransmit(const uint8_t* pkt, size_t len, uint64_t now);  // packet on 0x02

    // The next answer on 0x81 if it is due by `now`.
    bool TakeAck(uint64_t now, Bytes* out);
    bool AckWaiting() const { return !acks_.empty(); }
    uint64_t NextAckDue() const { return acks_.empty() ? 0 : acks_.front().due; }

    // Moves the bus forward to `now`: arbitration, transmission, reception, generators.
    void Advance(uint64_t now);
    // True while something on the bus needs time to pass (frames queued, generators running).
    bool Busy() const;

    // Records for the host, as a real frame would arrive at `now` on `channel` (the channel is
    // written into the record's bits 4-5 as given, 0..3).
    void InjectFrame(unsigned channel, const SimFrame& f, uint64_t now);
    void InjectNotice(unsigned channel, uint8_t code, uint8_t d0, uint8_t d1, uint8_t d2,
                      uint64_t now);

    uint32_t Stamp(uint64_t now) const {
        return static_cast<uint32_t>((now - power_on_) / 100000);
    }

    unsigned position_;
    SimIdentity id_;
    SimFaults faults_;
    SimController ch_[kChannels];
    SimGenerator gen_[kChannels];
    SimInStream in_;
    bool cabled_ = true;
    std::function<void(unsigned ch, const SimFrame& f, uint64_t end)> analyser_;
    uint64_t rx_dropped_ = 0;  // records lost to a full receive buffer

private:
    struct Ack {
        Bytes bytes;
        uint64_t due;
    };
    void Answer(uint8_t code, bool ok, const Bytes& data, uint64_t now);
    void Emit(int fault_code, Bytes ack, uint64_t now);
    void AnswerText(uint8_t code, const std::string& text, uint64_t now);
    void AdvanceBus(unsigned seg, uint64_t now);
    void Deliver(unsigned ch, const SimFrame& f, uint64_t at);
    void Push(const SimRecord& r);
    bool OnSegment(unsigned ch, unsigned seg) const { return cabled_ ? true : ch == seg; }

    uint64_t power_on_;
    uint64_t bus_free_[kChannels] = {0, 0};
    bool overrun_pending_[kChannels] = {false, false};
    std::deque<Ack> acks_;
};

}  // namespace vexlo_sim
