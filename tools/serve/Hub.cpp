#include "Hub.h"

#include <sys/epoll.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>

namespace vexlo_serve {

namespace {

const unsigned kDevType = 4;
// Frames taken from the library per call.
const unsigned kBatch = 256;

// The library's lines go to standard error, except while the hub retries an unplugged adapter:
// a failed attempt every second would fill the log with the same lines.
std::atomic<bool> g_quiet{false};

void LibraryLine(void*, int, const char* line) {
    if (!g_quiet.load(std::memory_order_relaxed)) std::fprintf(stderr, "%s\n", line);
}

}  // namespace

XHub::XHub(XLoop* loop, const XHubOptions& options) : loop_(loop), options_(options), tx_(kTxQueue) {
    buf_.resize(kBatch);
    for (CAN_INIT& init : config_) {
        std::memset(&init, 0, sizeof(init));
        init.AcceptMask = 0xFFFFFFFF;
        init.BusTiming0 = options_.btr0;
        init.BusTiming1 = options_.btr1;
        init.ListenOnly = options_.listen_only ? 1 : 0;
    }
}

bool XHub::Start(std::string* why) {
    vexlo_set_log(LibraryLine, nullptr);
    if (!tx_.Start()) {
        *why = "cannot start the transmit thread";
        return false;
    }
    loop_->Watch(tx_.Fd(), EPOLLIN, [this](uint32_t) { Results(); });
    if (!OpenAdapter(why)) return false;
    ArmNotices();
    started_ = true;
    tick_.At(loop_, MonoUs() + 1000000, [this] { Tick(); });
    return true;
}

void XHub::Stop() {
    if (!started_) return;
    started_ = false;
    tick_.Cancel();
    members_.clear();
    released_.clear();
    for (auto& o : order_) o.clear();
    CloseAdapter(false);
    if (closer_.joinable()) closer_.join();
    loop_->Forget(tx_.Fd());
    tx_.Stop();
}

bool XHub::OpenAdapter(std::string* why) {
    if (!VCI_OpenDevice(kDevType, options_.dev, 0)) {
        const char* text = nullptr;
        int code = vexlo_open_error(&text);
        *why = code != VEXLO_OPEN_OK && text ? text : "the adapter could not be opened";
        return false;
    }
    for (unsigned ch = 0; ch < kBuses; ++ch) {
        if (!VCI_InitCAN(kDevType, options_.dev, ch, &config_[ch]) || !VCI_StartCAN(kDevType, options_.dev, ch) ||
            (fds_[ch] = vexlo_receive_fd(options_.dev, ch)) < 0) {
            *why = "cannot start channel " + std::to_string(ch);
            VCI_CloseDevice(kDevType, options_.dev);
            fds_[0] = fds_[1] = -1;
            return false;
        }
    }
    open_ = true;
    for (unsigned ch = 0; ch < kBuses; ++ch) loop_->Watch(fds_[ch], EPOLLIN, [this, ch](uint32_t) { Receive(ch); });
    tx_.Resume(options_.dev);
    return true;
}

void XHub::CloseAdapter(bool unplugged) {
    if (!open_) return;
    open_ = false;
    // No transmission may run while the adapter closes; frames still waiting are refused.
    tx_.Hold();
    tx_.DropWaiting();
    for (unsigned ch = 0; ch < kBuses; ++ch) {
        loop_->Forget(fds_[ch]);
        fds_[ch] = -1;
    }
    // Closing resets both channels first, after the transmission in progress has ended; an
    // unplugged adapter answers none of it, and the transmission waits out its time: seconds the
    // clients must not wait for.
    closed_ = false;
    unsigned dev = options_.dev;
    if (!unplugged) {
        tx_.WaitIdle();
        VCI_CloseDevice(kDevType, dev);
        closed_ = true;
        return;
    }
    closer_ = std::thread([this, dev] {
        tx_.WaitIdle();
        g_quiet = true;
        VCI_CloseDevice(kDevType, dev);
        g_quiet = false;
        closed_ = true;
    });
}

bool XHub::Configure(XHubClient* client, unsigned bus, const CAN_INIT& init) {
    if (!open_ || bus >= kBuses) return false;
    for (XHubClient* c : order_[bus])
        if (c != client) return false;
    // No transmission may run while the channel restarts.
    tx_.Pause();
    CAN_INIT wanted = init;
    if (options_.listen_only) wanted.ListenOnly = 1;
    VCI_ResetCAN(kDevType, options_.dev, bus);
    bool ok = VCI_InitCAN(kDevType, options_.dev, bus, &wanted) && VCI_StartCAN(kDevType, options_.dev, bus);
    if (ok) {
        config_[bus] = wanted;
    } else {
        VCI_ResetCAN(kDevType, options_.dev, bus);
        VCI_InitCAN(kDevType, options_.dev, bus, &config_[bus]);
        VCI_StartCAN(kDevType, options_.dev, bus);
    }
    tx_.Resume(options_.dev);
    return ok;
}

bool XHub::Busy(const XHubClient* client, unsigned bus) const {
    if (bus >= kBuses) return false;
    for (const XHubClient* c : order_[bus])
        if (c != client) return true;
    return false;
}

bool XHub::Join(XHubClient* client, unsigned bus) {
    if (!open_ || bus >= kBuses || members_.count(client)) return false;
    Member m;
    m.bus = bus;
    m.queue = tx_.AddQueue();
    members_[client] = m;
    order_[bus].push_back(client);
    return true;
}

void XHub::Leave(XHubClient* client) {
    auto it = members_.find(client);
    if (it == members_.end()) return;
    tx_.RemoveQueue(it->second.queue);
    auto& o = order_[it->second.bus];
    o.erase(std::remove(o.begin(), o.end(), client), o.end());
    members_.erase(it);
}

void XHub::Release(XHubClient* client) {
    auto it = members_.find(client);
    if (it == members_.end()) return;
    uint64_t queue = it->second.queue;
    if (tx_.Idle(queue)) {
        Leave(client);
        return;
    }
    if (released_.size() >= kReleased) {
        std::fprintf(stderr, "vexlo: the last frames of a closed client were dropped: those of %u others still wait\n",
                     kReleased);
        Leave(client);
        return;
    }
    auto& o = order_[it->second.bus];
    o.erase(std::remove(o.begin(), o.end(), client), o.end());
    members_.erase(it);
    released_[queue] = 0;
}

XHub::SendResult XHub::Send(XHubClient* client, const CAN_OBJ& frame) {
    auto it = members_.find(client);
    if (it == members_.end() || !open_) return kNotJoined;
    if (config_[it->second.bus].ListenOnly) return kListenOnly;
    if (!tx_.Push(it->second.queue, it->second.bus, frame)) {
        it->second.full = true;
        return kFull;
    }
    return kQueued;
}

void XHub::Deliver(unsigned bus, const VEXLO_FRAME* frames, unsigned count, XHubClient* except) {
    // A callback may make any client leave: walk a copy and skip those that left.
    std::vector<XHubClient*> clients = order_[bus];
    for (XHubClient* c : clients)
        if (c != except && members_.count(c)) c->OnFrames(frames, count);
}

void XHub::Receive(unsigned bus) {
    for (int round = 0; round < 8 && open_; ++round) {
        int n = vexlo_receive(options_.dev, bus, buf_.data(), kBatch, 0);
        if (n == VEXLO_GONE) {
            Gone();
            return;
        }
        if (n <= 0) return;
        for (int i = 0; i < n; ++i) {
            if (buf_[i].flags & VEXLO_FRAME_ERROR) continue;
            ++counters_[bus].rx_frames;
            if (!buf_[i].frame.RemoteFrame) counters_[bus].rx_bytes += std::min<unsigned>(buf_[i].frame.DataLength, 8);
        }
        Deliver(bus, buf_.data(), static_cast<unsigned>(n), nullptr);
        if (static_cast<unsigned>(n) < kBatch) return;
    }
}

void XHub::ArmNotices() {
    // Notices wake the loop only once vexlo_receive has been called on the channel: a first call
    // here, so that a notice on a quiet bus (a lone sender's acknowledgement errors) is not kept
    // until a frame arrives.
    for (unsigned ch = 0; ch < kBuses; ++ch) Receive(ch);
}

void XHub::Results() {
    tx_.TakeResults(&results_);
    for (const XTransmitter::Result& r : results_) {
        XHubClient* sender = nullptr;
        for (auto& m : members_)
            if (m.second.queue == r.queue) sender = m.first;
        if (r.taken) {
            ++counters_[r.channel].tx_frames;
            if (!r.frame.RemoteFrame) counters_[r.channel].tx_bytes += std::min<unsigned>(r.frame.DataLength, 8);
            VEXLO_FRAME f;
            std::memset(&f, 0, sizeof(f));
            f.frame = r.frame;
            f.host_us = r.host_us;
            Deliver(r.channel, &f, 1, sender);
        } else if (sender) {
            sender->OnRefused(r.frame);
        } else {
            auto rel = released_.find(r.queue);
            if (rel != released_.end()) ++rel->second;
        }
    }
    // A released client's queue goes once its last frame has its result.
    for (auto rel = released_.begin(); rel != released_.end();) {
        if (!tx_.Idle(rel->first)) {
            ++rel;
            continue;
        }
        if (rel->second)
            std::fprintf(stderr, "vexlo: %llu frames of a closed client were not taken by the adapter\n",
                         static_cast<unsigned long long>(rel->second));
        tx_.RemoveQueue(rel->first);
        rel = released_.erase(rel);
    }
    // Room again for those that found their queue full.
    std::vector<XHubClient*> owed;
    for (auto& m : members_)
        if (m.second.full) {
            m.second.full = false;
            owed.push_back(m.first);
        }
    for (XHubClient* c : owed)
        if (members_.count(c)) c->OnRoom();
}

void XHub::Gone() {
    if (!open_) return;
    std::fprintf(stderr, "vexlo: adapter %u was unplugged: clients closed, opening it again every second\n", options_.dev);
    CloseAdapter(true);
    Results();  // the frames refused by the close go to their senders first
    std::vector<XHubClient*> clients;
    for (auto& m : members_) {
        tx_.RemoveQueue(m.second.queue);
        clients.push_back(m.first);
    }
    for (auto& rel : released_) tx_.RemoveQueue(rel.first);
    released_.clear();
    members_.clear();
    for (auto& o : order_) o.clear();
    for (XHubClient* c : clients) c->OnGone();
}

void XHub::Tick() {
    tick_.At(loop_, MonoUs() + 1000000, [this] { Tick(); });
    if (open_) {
        // The readiness descriptors turn readable at an unplug; this catches a quiet one too.
        if (vexlo_present(options_.dev) == VEXLO_GONE) Gone();
        return;
    }
    if (!closed_) return;
    if (closer_.joinable()) closer_.join();
    std::string why;
    g_quiet = true;
    bool ok = OpenAdapter(&why);
    g_quiet = false;
    if (!ok) return;
    std::fprintf(stderr, "vexlo: adapter %u is back: serving it again\n", options_.dev);
    for (const auto& task : back_) task();
    ArmNotices();
}

}  // namespace vexlo_serve
