#include "usb/SimUsbDevice.h"

#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>
#include <utility>

namespace vexlo_sim {
namespace {

// Set while this thread holds the testbed's lock inside the handler, so that a client finalised
// from within a umockdev call made there does not take the lock again.
thread_local bool t_in_handler = false;

// The devices alive in this process. umockdev's worker thread may deliver an ioctl or finalise a
// client while a testbed is being torn down on another thread: both look here first, under this
// lock, which the destructor holds while it takes a device apart. Lock order: this, then the
// testbed's lock. Recursive, because a client may be finalised inside a handled ioctl.
std::recursive_mutex g_live_mu;
std::set<const void*> g_live;

int EpIndex(uint8_t ep) {
    switch (ep) {
    case kEpCmdOut: return 0;
    case kEpCmdIn: return 1;
    case kEpDataOut: return 2;
    case kEpDataIn: return 3;
    default: return -1;
    }
}

void Fail(UMockdevIoctlClient* client, int err) { umockdev_ioctl_client_complete(client, -1, err); }

}  // namespace

SimUsbDevice::SimUsbDevice(std::mutex* mu, SimAdapter* adapter, SimHostLog* log, uint64_t (*clock)(),
                           std::function<void()> kick)
    : mu_(mu), adapter_(adapter), log_(log), clock_(clock), kick_(std::move(kick)) {}

SimUsbDevice::~SimUsbDevice() {
    std::lock_guard<std::recursive_mutex> live(g_live_mu);
    g_live.erase(this);
    Detach();
    for (auto& q : armed_)
        for (Urb* u : q) Free(u);
    // A client object may be finalising on umockdev's thread right now, its weak reference
    // already taken off: the record is left to OnClientGone, orphaned, instead of being freed here.
    for (auto& kv : clients_) {
        for (Urb* u : kv.second->done) Free(u);
        kv.second->done.clear();
        kv.second->dev = nullptr;
    }
    clients_.clear();
}

bool SimUsbDevice::Attach(UMockdevTestbed* tb, const std::string& node) {
    tb_ = tb;
    node_ = node;
    gchar* root = umockdev_testbed_get_root_dir(tb);
    std::string path = std::string(root) + node;
    g_free(root);
    if (!ready_.Make(path)) return false;
    // Reachable from umockdev's thread from here on. Registered here rather than at construction,
    // which happens under the testbed's lock: this lock comes first.
    {
        std::lock_guard<std::recursive_mutex> live(g_live_mu);
        g_live.insert(this);
    }
    handler_ = umockdev_ioctl_base_new();
    g_signal_connect(handler_, "handle-ioctl", G_CALLBACK(&SimUsbDevice::OnIoctl), this);
    GError* err = nullptr;
    if (!umockdev_testbed_attach_ioctl(tb, node.c_str(), handler_, &err)) {
        std::fprintf(stderr, "vexlo-sim: cannot attach to %s: %s\n", node.c_str(),
                     err ? err->message : "?");
        g_clear_error(&err);
        return false;
    }
    return true;
}

void SimUsbDevice::Retire() {
    {
        std::lock_guard<std::recursive_mutex> live(g_live_mu);
        g_live.erase(this);  // an ioctl still on its way is refused from here on
    }
    if (tb_ && handler_) {
        GError* err = nullptr;
        if (!umockdev_testbed_detach_ioctl(tb_, node_.c_str(), &err)) {
            std::fprintf(stderr, "vexlo-sim: cannot detach from %s: %s\n", node_.c_str(),
                         err ? err->message : "?");
            g_clear_error(&err);
        }
    }
    Detach();
    ready_.Close();
}

void SimUsbDevice::Detach() {
    if (!handler_) return;
    g_signal_handlers_disconnect_by_data(handler_, this);
    g_object_unref(handler_);
    handler_ = nullptr;
}

gboolean SimUsbDevice::OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self) {
    std::lock_guard<std::recursive_mutex> live(g_live_mu);
    if (!g_live.count(self)) {
        Fail(client, ENODEV);
        return TRUE;
    }
    auto* dev = static_cast<SimUsbDevice*>(self);
    std::lock_guard<std::mutex> lock(*dev->mu_);
    t_in_handler = true;
    gboolean r = dev->Handle(client);
    t_in_handler = false;
    return r;
}

void SimUsbDevice::OnClientGone(gpointer data, GObject*) {
    auto* c = static_cast<Client*>(data);
    std::lock_guard<std::recursive_mutex> live(g_live_mu);
    SimUsbDevice* dev = c->dev;
    if (!dev) {  // its device is gone already
        delete c;
        return;
    }
    std::unique_lock<std::mutex> lock(*dev->mu_, std::defer_lock);
    if (!t_in_handler) lock.lock();
    for (auto& q : dev->armed_) {
        for (auto it = q.begin(); it != q.end();) {
            if ((*it)->client == c) {
                dev->Free(*it);
                it = q.erase(it);
            } else {
                ++it;
            }
        }
    }
    if (dev->claimed_by_ == c) dev->claimed_by_ = nullptr;
    dev->done_total_ -= c->done.size();
    for (Urb* u : c->done) dev->Free(u);
    dev->clients_.erase(c->key);
    delete c;
    dev->UpdateReadiness();
    if (dev->Idle()) dev->kick_();  // the last client left an unplugged node: retire it
}

SimUsbDevice::Client* SimUsbDevice::ClientFor(UMockdevIoctlClient* client) {
    auto it = clients_.find(client);
    if (it != clients_.end()) return it->second;
    auto* c = new Client{this, client, {}};
    clients_[client] = c;
    g_object_weak_ref(G_OBJECT(client), &SimUsbDevice::OnClientGone, c);
    return c;
}

std::deque<SimUsbDevice::Urb*>& SimUsbDevice::Armed(uint8_t ep) { return armed_[EpIndex(ep)]; }

gboolean SimUsbDevice::Handle(UMockdevIoctlClient* client) {
    Client* c = ClientFor(client);
    unsigned long req = umockdev_ioctl_client_get_request(client);
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    if (req == USBDEVFS_REAPURB || req == USBDEVFS_REAPURBNDELAY) {
        Reap(client, c);  // URBs that ended by the unplug are still reaped
        return TRUE;
    }
    if (gone_) {
        Fail(client, ENODEV);
        return TRUE;
    }
    switch (req) {
    case USBDEVFS_SUBMITURB: Submit(client, c); return TRUE;
    case USBDEVFS_DISCARDURB: Discard(client, c); return TRUE;
    case USBDEVFS_GET_CAPABILITIES: {
        GError* err = nullptr;
        UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, sizeof(uint32_t), &err);
        if (!d) {
            g_clear_error(&err);
            Fail(client, EFAULT);
            return TRUE;
        }
        uint32_t caps = USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_BULK_CONTINUATION |
                        USBDEVFS_CAP_NO_PACKET_SIZE_LIM;
        std::memcpy(d->data, &caps, sizeof caps);
        umockdev_ioctl_client_complete(client, 0, 0);
        g_object_unref(d);
        return TRUE;
    }
    case USBDEVFS_CLAIMINTERFACE:
    case USBDEVFS_RELEASEINTERFACE: {
        GError* err = nullptr;
        UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, sizeof(unsigned int), &err);
        if (!d) {
            g_clear_error(&err);
            Fail(client, EFAULT);
            return TRUE;
        }
        unsigned int iface = 0;
        std::memcpy(&iface, d->data, sizeof iface);
        g_object_unref(d);
        if (iface != 0) {
            Fail(client, EINVAL);
        } else if (req == USBDEVFS_CLAIMINTERFACE) {
            // Another open file holding the interface keeps it: the second claim is refused.
            if (claimed_by_ && claimed_by_ != c) {
                Fail(client, EBUSY);
                return TRUE;
            }
            claimed_by_ = c;
            umockdev_ioctl_client_complete(client, 0, 0);
        } else {
            if (claimed_by_ == c) claimed_by_ = nullptr;
            umockdev_ioctl_client_complete(client, 0, 0);
        }
        return TRUE;
    }
    case USBDEVFS_CLEAR_HALT:
        umockdev_ioctl_client_complete(client, 0, 0);
        return TRUE;
    default:
        Fail(client, ENOTTY);
        return TRUE;
    }
}

void SimUsbDevice::Submit(UMockdevIoctlClient* client, Client* c) {
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    GError* err = nullptr;
    UMockdevIoctlData* ud = umockdev_ioctl_data_resolve(arg, 0, sizeof(struct usbdevfs_urb), &err);
    if (!ud) {
        g_clear_error(&err);
        Fail(client, EFAULT);
        return;
    }
    auto* urb = reinterpret_cast<struct usbdevfs_urb*>(ud->data);
    if (urb->type != USBDEVFS_URB_TYPE_BULK || EpIndex(urb->endpoint) < 0 || urb->buffer_length < 0) {
        g_object_unref(ud);
        Fail(client, EINVAL);
        return;
    }
    UMockdevIoctlData* bd = nullptr;
    if (urb->buffer_length > 0) {
        bd = umockdev_ioctl_data_resolve(ud, offsetof(struct usbdevfs_urb, buffer),
                                         static_cast<size_t>(urb->buffer_length), &err);
        if (!bd) {
            g_clear_error(&err);
            g_object_unref(ud);
            Fail(client, EFAULT);
            return;
        }
    }
    auto* u = new Urb;
    u->urb = ud;
    u->buf = bd;
    u->addr = ud->client_addr;
    u->ep = urb->endpoint;
    u->len = static_cast<size_t>(urb->buffer_length);
    u->client = c;
    umockdev_ioctl_client_complete(client, 0, 0);
    if (u->ep & 0x80) Armed(u->ep).push_back(u);
    else Out(u);
    Pump(clock_());
}

void SimUsbDevice::Out(Urb* u) {
    int idx = u->ep == kEpCmdOut ? 0 : 1;
    ++log_->attempts_[idx];
    switch (adapter_->faults_.out[idx]) {
    case SimOutFault::kNever: Armed(u->ep).push_back(u); return;  // only a discard ends it
    case SimOutFault::kStall: Finish(u, -EPIPE, 0); return;
    case SimOutFault::kNone: break;
    }
    const uint8_t* data = u->buf ? u->buf->data : nullptr;
    log_->Add(u->ep, data, u->len);
    uint64_t now = clock_();
    if (u->ep == kEpCmdOut) adapter_->OnCommand(data, u->len, now);
    else adapter_->OnTransmit(data, u->len, now);
    Finish(u, 0, u->len);
    kick_();
}

void SimUsbDevice::Finish(Urb* u, int status, size_t actual) {
    auto* urb = reinterpret_cast<struct usbdevfs_urb*>(u->urb->data);
    urb->status = status;
    urb->actual_length = static_cast<int>(actual);
    u->client->done.push_back(u);
    ++done_total_;
    UpdateReadiness();
}

void SimUsbDevice::Fill(Urb* u, const Bytes& data) {
    size_t n = data.size() < u->len ? data.size() : u->len;
    if (n) std::memcpy(u->buf->data, data.data(), n);
    Finish(u, 0, n);
}

void SimUsbDevice::Free(Urb* u) {
    if (u->buf) g_object_unref(u->buf);
    g_object_unref(u->urb);
    delete u;
}

void SimUsbDevice::Pump(uint64_t now) {
    if (gone_) return;
    auto& acks = Armed(kEpCmdIn);
    Bytes b;
    while (!acks.empty() && adapter_->TakeAck(now, &b)) {
        Urb* u = acks.front();
        acks.pop_front();
        Fill(u, b);
    }
    auto& data = Armed(kEpDataIn);
    while (!data.empty() && adapter_->in_.Take(data.front()->len, &b)) {
        Urb* u = data.front();
        data.pop_front();
        Fill(u, b);
    }
}

void SimUsbDevice::Reap(UMockdevIoctlClient* client, Client* c) {
    if (c->done.empty()) {
        Fail(client, gone_ ? ENODEV : EAGAIN);
        return;
    }
    Urb* u = c->done.front();
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    GError* err = nullptr;
    UMockdevIoctlData* rp = umockdev_ioctl_data_resolve(arg, 0, sizeof(void*), &err);
    if (!rp) {
        g_clear_error(&err);
        Fail(client, EFAULT);
        return;
    }
    c->done.pop_front();
    --done_total_;
    umockdev_ioctl_data_set_ptr(rp, 0, u->urb);
    umockdev_ioctl_client_complete(client, 0, 0);
    g_object_unref(rp);
    Free(u);
    UpdateReadiness();
}

void SimUsbDevice::Discard(UMockdevIoctlClient* client, Client* c) {
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    unsigned long addr = 0;
    std::memcpy(&addr, arg->data, sizeof addr < static_cast<size_t>(arg->data_len) ? sizeof addr
                                                                                  : static_cast<size_t>(arg->data_len));
    for (auto& q : armed_) {
        for (auto it = q.begin(); it != q.end(); ++it) {
            if ((*it)->client == c && (*it)->addr == addr) {
                Urb* u = *it;
                q.erase(it);
                Finish(u, -ENOENT, 0);
                umockdev_ioctl_client_complete(client, 0, 0);
                return;
            }
        }
    }
    Fail(client, EINVAL);  // already completed
}

void SimUsbDevice::Unplug() {
    gone_ = true;
    adapter_ = nullptr;
    for (auto& q : armed_) {
        while (!q.empty()) {
            Urb* u = q.front();
            q.pop_front();
            Finish(u, -ESHUTDOWN, 0);
        }
    }
    UpdateReadiness();
}

void SimUsbDevice::UpdateReadiness() { ready_.Set(done_total_ > 0); }

}  // namespace vexlo_sim
