#include "SocketCanLink.h"

#include <linux/can/raw.h>
#include <linux/sock_diag.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Netlink.h"
#include "SocketCanFrame.h"

namespace vexlo_serve {

namespace {

// Frames read per call, and calls per readiness, so that a busy interface never starves the
// server's other clients.
const unsigned kBatch = 32;
const int kRounds = 8;
// When the interface's socket takes no more frames, they are written again this much later.
const uint64_t kRetryUs = 2000;

std::string Errno(int e) { return std::strerror(e); }

std::string Frames(uint64_t n) { return std::to_string(n) + (n == 1 ? " frame" : " frames"); }

}  // namespace

bool XSocketCanLink::Start(std::string* why) {
    fd_ = socket(PF_CAN, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, CAN_RAW);
    if (fd_ < 0) {
        *why = "cannot open a CAN socket for " + iface_ + ": " + Errno(errno) +
               (errno == EAFNOSUPPORT || errno == EPROTONOSUPPORT ? " (the kernel's can and can-raw modules are not loaded)" : "");
        return false;
    }
    if (!Attach(why)) return false;
    // The receive buffer holds the programs' frames while the adapter is busy (beyond the
    // system's limit where the server may).
    int size = kReceiveBuffer;
    if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) != 0)
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
    // Error frames from the interface are not asked for (no CAN_RAW_ERR_FILTER): the adapter could
    // not send them. CAN_RAW_RECV_OWN_MSGS stays off: the server never reads its own writes back.
    sockaddr_can addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.can_family = AF_CAN;
    addr.can_ifindex = index_;
    if (bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        *why = "cannot bind a CAN socket to " + iface_ + ": " + Errno(errno);
        return false;
    }
    bound_ = true;
    joined_ = hub_->Join(this, bus_);
    Watch();
    std::fprintf(stderr, "vexlo: channel %u as the CAN interface %s%s\n", bus_, iface_.c_str(),
                 created_ ? " (a vcan made for it, removed when the server stops)" : "");
    return true;
}

bool XSocketCanLink::Attach(std::string* why) {
    XLinkInfo info;
    if (!XNetlink::Find(iface_, &info)) {
        if (errno != ENODEV) {
            *why = "cannot look up the interface " + iface_ + ": " + Errno(errno);
            return false;
        }
        if (!XNetlink::CreateVcan(iface_)) {
            int e = errno;
            *why = "there is no CAN interface " + iface_;
            if (e == EPERM)
                *why += " and the server may not create one (that needs CAP_NET_ADMIN): create it as root with 'ip link add dev " +
                        iface_ + " type vcan' and 'ip link set up " + iface_ + "'";
            else
                *why += " and it cannot be created: " + Errno(e) + (e == EOPNOTSUPP ? " (no vcan in this kernel: modprobe vcan)" : "");
            return false;
        }
        created_ = true;
        if (!XNetlink::Find(iface_, &info)) {
            *why = "cannot look up the interface " + iface_ + " just created: " + Errno(errno);
            return false;
        }
    }
    index_ = info.index;
    if (!info.can) {
        *why = iface_ + " is not a CAN interface (a vcan, or one end of a vxcan pair)";
        return false;
    }
    if (!info.up && !XNetlink::SetUp(index_)) {
        *why = iface_ + " is down and the server cannot bring it up (" + Errno(errno) + "): 'ip link set up " + iface_ + "' as root";
        return false;
    }
    return true;
}

void XSocketCanLink::Stop() {
    if (joined_) hub_->Leave(this);
    joined_ = false;
    retry_.Cancel();
    report_.Cancel();
    if (fd_ >= 0) {
        CountDrops();
        Report();
        if (reading_) loop_->Forget(fd_);
        reading_ = false;
        close(fd_);
        fd_ = -1;
        if (bound_)
            std::fprintf(stderr, "vexlo: %s: %s to the adapter, %s from the bus written there\n", iface_.c_str(),
                         Frames(sent_).c_str(), Frames(written_).c_str());
        bound_ = false;
    }
    if (created_ && !XNetlink::Remove(index_) && errno != ENODEV)
        std::fprintf(stderr, "vexlo: cannot remove the interface %s: %s\n", iface_.c_str(), std::strerror(errno));
    created_ = false;
}

void XSocketCanLink::Back() {
    if (fd_ < 0 || joined_) return;
    joined_ = hub_->Join(this, bus_);
    if (joined_) std::fprintf(stderr, "vexlo: %s carries channel %u again\n", iface_.c_str(), bus_);
}

void XSocketCanLink::Watch() {
    // Input waits in the socket while the hub has no room for what was read already.
    bool want = fd_ >= 0 && held_.empty();
    if (want == reading_) return;
    if (want) loop_->Watch(fd_, EPOLLIN, [this](uint32_t) { Readable(); });
    else loop_->Forget(fd_);
    reading_ = want;
}

void XSocketCanLink::Readable() {
    for (int round = 0; round < kRounds && fd_ >= 0 && held_.empty(); ++round) {
        can_frame frames[kBatch];
        iovec iov[kBatch];
        mmsghdr msgs[kBatch];
        std::memset(msgs, 0, sizeof(msgs));
        for (unsigned i = 0; i < kBatch; ++i) {
            iov[i] = {&frames[i], sizeof(frames[i])};
            msgs[i].msg_hdr.msg_iov = &iov[i];
            msgs[i].msg_hdr.msg_iovlen = 1;
        }
        int n = recvmmsg(fd_, msgs, kBatch, MSG_DONTWAIT, nullptr);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == ENODEV) {
            std::fprintf(stderr, "vexlo: %s was removed: channel %u is no longer served there\n", iface_.c_str(), bus_);
            created_ = false;
            Stop();
            return;
        }
        if (n < 0 && errno == ENETDOWN)
            std::fprintf(stderr, "vexlo: %s is down: no frame passes until it is up again\n", iface_.c_str());
        if (n <= 0) break;
        for (int i = 0; i < n; ++i) {
            // MSG_CONFIRM marks the socket's own frame, which comes back only with
            // CAN_RAW_RECV_OWN_MSGS: never sent on twice, whatever a kernel does.
            CAN_OBJ f;
            if (msgs[i].msg_len == sizeof(can_frame) && !(msgs[i].msg_hdr.msg_flags & MSG_CONFIRM) &&
                FromSocketCan(frames[i], &f))
                Forward(f);
        }
        if (static_cast<unsigned>(n) < kBatch) break;
    }
    CountDrops();
    Watch();
}

void XSocketCanLink::CountDrops() {
    // The kernel counts the frames it could not queue for the socket (its buffer was full).
    uint32_t info[SK_MEMINFO_VARS] = {};
    socklen_t len = sizeof(info);
    if (fd_ < 0 || getsockopt(fd_, SOL_SOCKET, SO_MEMINFO, info, &len) != 0 || info[SK_MEMINFO_DROPS] <= kernel_drops_) return;
    lost_in_.now += info[SK_MEMINFO_DROPS] - kernel_drops_;
    kernel_drops_ = info[SK_MEMINFO_DROPS];
    Later();
}

void XSocketCanLink::Forward(const CAN_OBJ& frame) {
    if (!held_.empty()) {
        held_.push_back(frame);
        return;
    }
    XHub::SendResult r = joined_ ? hub_->Send(this, frame) : XHub::kNotJoined;
    if (r == XHub::kQueued) {
        ++sent_;
    } else if (r == XHub::kFull) {
        held_.push_back(frame);
    } else {
        ++(r == XHub::kListenOnly ? refused_ : away_).now;
        Later();
    }
}

void XSocketCanLink::OnRoom() {
    std::deque<CAN_OBJ> held;
    held.swap(held_);
    while (!held.empty()) {
        Forward(held.front());
        held.pop_front();
    }
    Watch();
}

void XSocketCanLink::OnRefused(const CAN_OBJ&) {
    --sent_;
    ++refused_.now;
    Later();
}

void XSocketCanLink::OnGone() {
    joined_ = false;
    if (!held_.empty()) {
        away_.now += held_.size();
        held_.clear();
        Later();
    }
    std::fprintf(stderr, "vexlo: %s stays in place without the adapter: frames written there are not sent until it is back\n",
                 iface_.c_str());
    Watch();
}

void XSocketCanLink::OnFrames(const VEXLO_FRAME* frames, unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
        can_frame f = ToSocketCan(frames[i]);
        if (out_.empty() && Write(f)) continue;
        if (out_.size() < kOutFrames) {
            out_.push_back(f);
        } else {
            ++lost_out_.now;
            Later();
        }
    }
    if (!out_.empty() && !retry_.pending()) retry_.At(loop_, MonoUs() + kRetryUs, [this] { Flush(); });
}

bool XSocketCanLink::Write(const can_frame& frame) {
    if (fd_ < 0) return true;
    ssize_t n = send(fd_, &frame, sizeof(frame), MSG_DONTWAIT);
    if (n == static_cast<ssize_t>(sizeof(frame))) {
        ++written_;
        return true;
    }
    // A full socket or a full queue of the interface: later. Anything else (the interface is
    // down): the frame is lost for it, and counted.
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS || errno == EINTR)) return false;
    write_error_ = n < 0 ? errno : EIO;
    ++lost_out_.now;
    Later();
    return true;
}

void XSocketCanLink::Flush() {
    while (!out_.empty() && Write(out_.front())) out_.pop_front();
    if (!out_.empty()) retry_.At(loop_, MonoUs() + kRetryUs, [this] { Flush(); });
}

void XSocketCanLink::Later() {
    if (!report_.pending()) report_.At(loop_, MonoUs() + 1000000, [this] { Report(); });
}

void XSocketCanLink::Report() {
    std::string unwritten = "of the bus not written there: " +
                            (write_error_ ? Errno(write_error_) : std::string("its socket took no more"));
    const std::pair<Count*, std::string> lines[] = {
        {&refused_, "written there refused by the adapter"},
        {&away_, "written there not sent: the adapter was away"},
        {&lost_in_, "written there lost: they came faster than the adapter sends, beyond the socket's buffer"},
        {&lost_out_, unwritten}};
    for (const auto& l : lines) {
        Count& c = *l.first;
        if (c.now == c.logged) continue;
        std::fprintf(stderr, "vexlo: %s: %s %s (%llu in all)\n", iface_.c_str(), Frames(c.now - c.logged).c_str(),
                     l.second.c_str(), static_cast<unsigned long long>(c.now));
        c.logged = c.now;
    }
}

bool ParseSocketCanOption(const std::string& value, std::string* iface, unsigned* bus) {
    size_t eq = value.rfind('=');
    if (eq == std::string::npos || eq == 0 || eq > 15) return false;
    std::string name = value.substr(0, eq), ch = value.substr(eq + 1);
    if (ch != "0" && ch != "1") return false;
    if (name == "." || name == ".." || name.find_first_of("/: \t\n") != std::string::npos) return false;
    *iface = name;
    *bus = static_cast<unsigned>(ch[0] - '0');
    return true;
}

}  // namespace vexlo_serve
