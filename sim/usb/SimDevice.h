// One simulated adapter as a test drives it: what the host sent, what the adapter reports,
// scripted faults, the generators, the channels' state, unplug and replug.
// Every method takes the testbed's lock; none may be called from the adapter's own callbacks.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "model/SimAdapter.h"
#include "usb/SimHostLog.h"

namespace vexlo_sim {

class SimTestbed;
class SimUsbDevice;

// A snapshot of one channel.
struct SimChannelInfo {
    SimChanState state;
    uint32_t bitrate;
    bool listen_only;
    uint32_t accept_code, accept_mask;
    bool single_filter;
    uint8_t regs[16];      // registers 0x00..0x0F as command 0x0D reads them
    size_t tx_queued;      // frames waiting in the transmit buffer
};

class SimDevice {
public:
    SimDevice(SimTestbed* bed, unsigned position, const SimIdentity& id);
    ~SimDevice();

    unsigned Position() const { return position_; }

    // Packets the host sent on 0x01 or 0x02 (0: both), byte for byte, in order.
    std::vector<Bytes> Sent(uint8_t ep) const;
    std::vector<SimPacket> SentAll() const;
    void ClearSent();
    // Waits until at least `n` packets were sent on `ep` (0: on either); false on timeout.
    bool WaitSent(uint8_t ep, size_t n, unsigned timeout_ms);
    // OUT transfers submitted on 0x01 / 0x02, also those a fault kept from the adapter.
    uint64_t OutAttempts(uint8_t ep) const;

    // Records delivered on 0x82 as the adapter would: a frame received on `channel` (0..3; 2 and
    // 3 give the invalid channel bits), a notice with its three data bytes.
    void InjectFrame(unsigned channel, const SimFrame& f);
    void InjectNotice(unsigned channel, uint8_t code, uint8_t d0 = 0, uint8_t d1 = 0, uint8_t d2 = 0);
    // One transfer on 0x82 of exactly these bytes (empty: a zero-length packet).
    void InjectRaw(const Bytes& transfer);

    // Faults. Acknowledgement faults spoil the answers to `code` (kAnyAck: all, kTxAck: transmit
    // packets) `count` times (-1: until cleared).
    void SetAckFault(SimAckFault kind, int code = kAnyAck, int count = -1);
    void SetTxAccept(int n);                      // -1: the transmit buffer decides
    void SetOutFault(uint8_t ep, SimOutFault f);  // ep 0x01 or 0x02
    void SetDelay(unsigned ms);                   // answers on 0x81 come this much later
    void ClearFaults();

    void StartGenerator(unsigned channel, const SimGenConfig& cfg);
    void StopGenerator(unsigned channel);
    uint64_t GeneratorSent(unsigned channel) const;
    void SetCabled(bool cabled);
    void SetTxCapacity(unsigned channel, size_t frames);

    SimChannelInfo Channel(unsigned channel) const;
    uint64_t RxDropped() const;
    // The adapter's receive buffer: its size in records (a test that measures the host alone
    // may make it deep enough to ride out the emulation's scheduling hiccups), and the records
    // waiting in it for the host.
    void SetRxCapacity(size_t records);
    size_t RxPending() const;

    // An analyser on the adapter's buses (see SimAdapter): it acknowledges every frame and
    // `seen` is called, lock held, with each completed frame. Empty: none.
    void SetAnalyser(std::function<void(unsigned ch, const SimFrame& f, uint64_t end)> seen);

    // Unplug: armed transfers end with no-device, later calls fail. Replug: the adapter comes back
    // powered anew (channels in reset, faults kept) at a new device number. What is on its buses
    // stays: cabling, generators and analyser. The unplugged node is retired once its last
    // client has closed it.
    bool Unplug();
    bool Replug();
    bool Plugged() const;

    // For the testbed, lock held.
    void Tick(uint64_t now);
    // When the engine must look at this adapter again: the next answer due after `now`, or a
    // tick ahead while its bus is busy; UINT64_MAX if nothing waits on time. An answer already
    // due waits for the host's IN transfer, whose submission hands it over.
    uint64_t NeedsBy(uint64_t now) const;
    bool Plug();               // without the lock
    // An unplugged node waits to be retired (lock held); Sweep retires them (without the lock).
    bool SweepPending() const;
    void Sweep();

private:
    SimTestbed* bed_;
    unsigned position_;
    SimIdentity id_;
    std::unique_ptr<SimAdapter> adapter_;
    std::vector<std::unique_ptr<SimUsbDevice>> plugs_;  // the last one is plugged in, if any
    std::string syspath_;  // of the node plugged last
    bool plugged_ = false;
    SimHostLog log_;
};

}  // namespace vexlo_sim
