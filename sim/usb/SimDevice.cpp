#include "usb/SimDevice.h"

#include <algorithm>
#include <cstdint>

#include "usb/SimTestbed.h"
#include "usb/SimUsbDevice.h"

namespace vexlo_sim {

using Lock = std::lock_guard<std::mutex>;

SimDevice::SimDevice(SimTestbed* bed, unsigned position, const SimIdentity& id)
    : bed_(bed), position_(position), id_(id) {}

SimDevice::~SimDevice() = default;

bool SimDevice::Plug() {
    SimUsbDevice* usb;
    {
        Lock lock(bed_->mu_);
        if (plugged_) return false;
        uint64_t now = SimTestbed::Now();
        auto fresh = std::make_unique<SimAdapter>(position_, id_, now);
        if (adapter_) {
            fresh->faults_ = adapter_->faults_;
            fresh->cabled_ = adapter_->cabled_;
            fresh->analyser_ = adapter_->analyser_;
            for (unsigned c = 0; c < kChannels; ++c) {
                fresh->gen_[c] = adapter_->gen_[c];
                fresh->gen_[c].Hold(now);  // the remote nodes waited while the adapter was away
            }
        }
        adapter_ = std::move(fresh);
        SimTestbed* bed = bed_;
        plugs_.push_back(std::make_unique<SimUsbDevice>(&bed_->mu_, adapter_.get(), &log_,
                                                        &SimTestbed::Now, [this, bed] {
                                                            bed->WakeBy(NeedsBy(SimTestbed::Now()));
                                                        }));
        usb = plugs_.back().get();
    }
    std::string syspath;
    if (!bed_->AddNode(usb, position_, &syspath)) return false;
    Lock lock(bed_->mu_);
    syspath_ = syspath;
    plugged_ = true;
    bed_->Kick();  // anything the host started before this is timed from now on
    return true;
}

bool SimDevice::Unplug() {
    std::string path;
    {
        Lock lock(bed_->mu_);
        if (!plugged_) return false;
        plugs_.back()->Unplug();
        plugged_ = false;
        path = syspath_;
    }
    bed_->RemoveNode(path);
    Sweep();
    return true;
}

bool SimDevice::SweepPending() const {
    for (const auto& p : plugs_)
        if (p->Idle()) return true;
    return false;
}

void SimDevice::Sweep() {
    std::vector<std::unique_ptr<SimUsbDevice>> idle;
    {
        Lock lock(bed_->mu_);
        for (size_t i = 0; i < plugs_.size();) {
            if (plugs_[i]->Idle()) {
                idle.push_back(std::move(plugs_[i]));
                plugs_.erase(plugs_.begin() + static_cast<std::ptrdiff_t>(i));
            } else {
                ++i;
            }
        }
    }
    for (auto& p : idle) p->Retire();
}

bool SimDevice::Replug() { return Plug(); }

bool SimDevice::Plugged() const {
    Lock lock(bed_->mu_);
    return plugged_;
}

void SimDevice::Tick(uint64_t now) {
    if (!plugged_) return;
    adapter_->Advance(now);
    plugs_.back()->Pump(now);
}

uint64_t SimDevice::NeedsBy(uint64_t now) const {
    uint64_t due = UINT64_MAX;
    if (SweepPending()) return now;
    if (!plugged_) return due;
    if (adapter_->AckWaiting() && adapter_->NextAckDue() > now) due = adapter_->NextAckDue();
    if (adapter_->Busy()) due = std::min(due, now + SimTestbed::kTickNs);
    return due;
}

std::vector<Bytes> SimDevice::Sent(uint8_t ep) const {
    Lock lock(bed_->mu_);
    return log_.Packets(ep);
}

std::vector<SimPacket> SimDevice::SentAll() const {
    Lock lock(bed_->mu_);
    return log_.All();
}

void SimDevice::ClearSent() {
    Lock lock(bed_->mu_);
    log_.Clear();
}

bool SimDevice::WaitSent(uint8_t ep, size_t n, unsigned timeout_ms) {
    std::unique_lock<std::mutex> lock(bed_->mu_);
    return log_.Wait(lock, ep, n, timeout_ms);
}

uint64_t SimDevice::OutAttempts(uint8_t ep) const {
    Lock lock(bed_->mu_);
    return log_.attempts_[ep == kEpCmdOut ? 0 : 1];
}

void SimDevice::InjectFrame(unsigned channel, const SimFrame& f) {
    Lock lock(bed_->mu_);
    adapter_->InjectFrame(channel, f, SimTestbed::Now());
    bed_->Kick();
}

void SimDevice::InjectNotice(unsigned channel, uint8_t code, uint8_t d0, uint8_t d1, uint8_t d2) {
    Lock lock(bed_->mu_);
    adapter_->InjectNotice(channel, code, d0, d1, d2, SimTestbed::Now());
    bed_->Kick();
}

void SimDevice::InjectRaw(const Bytes& transfer) {
    Lock lock(bed_->mu_);
    adapter_->in_.PushRaw(transfer);
    bed_->Kick();
}

void SimDevice::SetAckFault(SimAckFault kind, int code, int count) {
    Lock lock(bed_->mu_);
    SimFaults& f = adapter_->faults_;
    f.ack = kind;
    f.ack_code = code;
    f.ack_count = count;
}

void SimDevice::SetTxAccept(int n) {
    Lock lock(bed_->mu_);
    adapter_->faults_.tx_accept = n;
}

void SimDevice::SetOutFault(uint8_t ep, SimOutFault fault) {
    Lock lock(bed_->mu_);
    adapter_->faults_.out[ep == kEpCmdOut ? 0 : 1] = fault;
}

void SimDevice::SetDelay(unsigned ms) {
    Lock lock(bed_->mu_);
    adapter_->faults_.delay_ms = ms;
}

void SimDevice::ClearFaults() {
    Lock lock(bed_->mu_);
    adapter_->faults_ = SimFaults();
}

void SimDevice::StartGenerator(unsigned channel, const SimGenConfig& cfg) {
    Lock lock(bed_->mu_);
    adapter_->gen_[channel & 1].Start(cfg, SimTestbed::Now());
    bed_->Kick();
}

void SimDevice::StopGenerator(unsigned channel) {
    Lock lock(bed_->mu_);
    adapter_->gen_[channel & 1].Stop();
}

uint64_t SimDevice::GeneratorSent(unsigned channel) const {
    Lock lock(bed_->mu_);
    return adapter_->gen_[channel & 1].sent_;
}

void SimDevice::SetAnalyser(std::function<void(unsigned ch, const SimFrame& f, uint64_t end)> seen) {
    Lock lock(bed_->mu_);
    adapter_->analyser_ = std::move(seen);
}

void SimDevice::SetCabled(bool cabled) {
    Lock lock(bed_->mu_);
    adapter_->cabled_ = cabled;
}

void SimDevice::SetTxCapacity(unsigned channel, size_t frames) {
    Lock lock(bed_->mu_);
    adapter_->ch_[channel & 1].tx_capacity_ = frames;
}

SimChannelInfo SimDevice::Channel(unsigned channel) const {
    Lock lock(bed_->mu_);
    adapter_->Advance(SimTestbed::Now());
    const SimController& c = adapter_->ch_[channel & 1];
    SimChannelInfo info{};
    info.state = c.state_;
    info.bitrate = c.bitrate_;
    info.listen_only = c.listen_only_;
    info.accept_code = c.filter_.code_;
    info.accept_mask = c.filter_.mask_;
    info.single_filter = c.filter_.single_;
    for (uint8_t a = 0; a < 16; ++a) info.regs[a] = c.ReadReg(a);
    info.tx_queued = c.txq_.size();
    return info;
}

void SimDevice::SetRxCapacity(size_t records) {
    Lock lock(bed_->mu_);
    adapter_->in_.capacity_ = records;
}

size_t SimDevice::RxPending() const {
    Lock lock(bed_->mu_);
    return adapter_->in_.Records();
}

uint64_t SimDevice::RxDropped() const {
    Lock lock(bed_->mu_);
    return adapter_->rx_dropped_;
}

}  // namespace vexlo_sim
