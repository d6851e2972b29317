#include "SlcanLine.h"

#include <fcntl.h>
#include <limits.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Address.h"

namespace vexlo_serve {

namespace {

const unsigned kDevType = 4;
// A readable client gets at most kReads reads per round, so one busy line never starves the others.
const int kReads = 16;

vexlo_tool::SlcanIdentity ReadIdentity(XHub* hub) {
    vexlo_tool::SlcanIdentity id;
    CAN_INFO info;
    std::memset(&info, 0, sizeof(info));
    if (hub->present() && VCI_ReadBoardInfo(kDevType, hub->dev(), &info)) {
        info.SerialNumber[sizeof(info.SerialNumber) - 1] = 0;
        id.hw_version = info.HardwareVersion;
        id.fw_version = info.FirmwareVersion;
        id.serial = info.SerialNumber;
    }
    return id;
}

}  // namespace

XSlcanLine::XSlcanLine(XLoop* loop, XHub* hub, unsigned bus, const std::string& name)
    : loop_(loop), hub_(hub), bus_(bus), name_(name), session_(this, vexlo_tool::SlcanIdentity()) {}

void XSlcanLine::Attach(int fd, std::function<void()> on_hangup) {
    Detach();
    fd_ = fd;
    on_hangup_ = std::move(on_hangup);
    session_ = vexlo_tool::XSlcanSession(this, ReadIdentity(hub_));
    out_ = XOutQueue(kOutLimit);
    dropped_ = refused_ = 0;
    watched_ = 0;
    hung_up_ = false;
    Watch();
}

void XSlcanLine::Detach() {
    if (fd_ < 0) return;
    session_.End();
    if (watched_) loop_->Forget(fd_);
    close(fd_);
    fd_ = -1;
    if (dropped_ || refused_)
        std::fprintf(stderr, "vexlo: %s: client gone; %llu received frames dropped for reading too slowly, %llu frames "
                     "not taken by the adapter\n", name_.c_str(), static_cast<unsigned long long>(dropped_),
                     static_cast<unsigned long long>(refused_));
}

void XSlcanLine::Hangup() {
    std::function<void()> hangup = on_hangup_;
    Detach();
    if (hangup) hangup();
}

void XSlcanLine::Finish() {
    if (fd_ < 0) return;
    Events(EPOLLIN | EPOLLHUP);
    if (fd_ >= 0) Hangup();
}

void XSlcanLine::Watch() {
    // No more input while the session waits for the hub, or while the client's output is full:
    // the client's bytes stay in its descriptor, which holds the client back. Nothing more is
    // written to a client that hung up.
    bool input = !session_.waiting() && (hung_up_ || !Full());
    bool output = !out_.empty() && !hung_up_;
    uint32_t events = (input ? uint32_t{EPOLLIN} : 0u) | (output ? uint32_t{EPOLLOUT} : 0u);
    if (events == watched_) return;
    if (events == 0) loop_->Forget(fd_);
    else if (watched_ == 0) loop_->Watch(fd_, events, [this](uint32_t e) { Events(e); });
    else loop_->Change(fd_, events);
    watched_ = events;
}

bool XSlcanLine::Write() { return hung_up_ || out_.empty() || out_.WriteTo(fd_); }

void XSlcanLine::Events(uint32_t events) {
    // A client that hung up is only read: what it wrote before is taken, whatever its output holds.
    if (events & (EPOLLHUP | EPOLLERR)) hung_up_ = true;
    bool gone = (events & EPOLLOUT) && !Write();
    for (int i = 0; !gone && i < kReads && !session_.waiting() && (hung_up_ || !Full()) &&
                    (events & (EPOLLIN | EPOLLHUP | EPOLLERR));
         ++i) {
        char buf[kReadSize];
        ssize_t n = read(fd_, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
        if (n <= 0) {
            gone = true;  // a closed connection, or EIO: the last slave of a pseudo-terminal closed
            break;
        }
        text_.clear();
        session_.Input(buf, static_cast<size_t>(n), &text_);
        Flush(false);
        gone = !Write();
    }
    if (gone || !Write()) return Hangup();
    Watch();
}

void XSlcanLine::Flush(bool frame) {
    if (text_.empty()) return;
    if (!frame) return out_.Force(text_);
    if (out_.Append(text_)) return;
    ++dropped_;
    session_.Lost();
}

void XSlcanLine::OnFrames(const VEXLO_FRAME* frames, unsigned count) {
    if (fd_ < 0) return;
    for (unsigned i = 0; i < count; ++i) {
        text_.clear();
        session_.Received(frames[i], &text_);
        Flush(true);
    }
    Write();
    Watch();
}

void XSlcanLine::OnRefused(const CAN_OBJ&) {
    if (fd_ < 0) return;
    ++refused_;
    text_.clear();
    session_.Refused(&text_);
    Flush(false);
    Write();
    Watch();
}

void XSlcanLine::OnRoom() {
    if (fd_ < 0) return;
    text_.clear();
    session_.Resume(&text_);
    Flush(false);
    Watch();
}

void XSlcanLine::OnGone() { session_.End(); }

bool XSlcanLine::Configure(const CAN_INIT& init) {
    unsigned rate = 0, sample = 0;
    vexlo_rate_for_timing(init.BusTiming0, init.BusTiming1, &rate, &sample);
    bool ok = hub_->Configure(this, bus_, init);
    const char* refusal = ok ? nullptr
                        : !hub_->present()   ? ": refused, the adapter is gone"
                        : hub_->Busy(this, bus_) ? ": refused, another client uses the channel"
                                              : ": refused by the adapter";
    std::fprintf(stderr, "vexlo: channel %u %s %s: %u bit/s (timing %02X:%02X), acceptance code %08X mask %08X%s\n",
                 bus_, ok ? "set by" : "asked for by", name_.c_str(), rate, init.BusTiming0, init.BusTiming1,
                 init.AcceptCode, init.AcceptMask, ok ? "" : refusal);
    return ok;
}

vexlo_tool::XSlcanPort::SendResult XSlcanLine::Send(const CAN_OBJ& frame) {
    XHub::SendResult r = hub_->Send(this, frame);
    return r == XHub::kQueued ? kSent : r == XHub::kFull ? kBusy : kRefused;
}

bool XSlcanLine::SetOpen(bool open) {
    if (open) return hub_->Join(this, bus_);
    hub_->Leave(this);
    return true;
}

// ---- Pseudo-terminal ----------------------------------------------------------------------------

namespace {

std::string LinkTarget(const std::string& path) {
    char target[PATH_MAX];
    ssize_t n = readlink(path.c_str(), target, sizeof(target) - 1);
    return n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
}

}  // namespace

XSlcanPty::~XSlcanPty() {
    line_.Detach();
    if (fresh_ >= 0) close(fresh_);
    if (inotify_ >= 0) {
        loop_->Forget(inotify_);
        close(inotify_);
    }
    // Only the link this server made, and only while it is still there.
    if (linked_ && LinkTarget(link_) == fresh_slave_) unlink(link_.c_str());
}

bool XSlcanPty::Start(std::string* why) {
    struct stat st;
    if (lstat(link_.c_str(), &st) == 0) {
        std::string target = LinkTarget(link_);
        bool stale = S_ISLNK(st.st_mode) && target.compare(0, 9, "/dev/pts/") == 0 && access(target.c_str(), F_OK) != 0;
        if (!stale) {
            std::string what = S_ISREG(st.st_mode) ? "a file"
                             : S_ISDIR(st.st_mode) ? "a directory"
                             : S_ISLNK(st.st_mode) ? "a link to " + target
                                                   : "a special file";
            *why = "cannot make the link " + link_ + ": there is " + what + " (not replaced)";
            return false;
        }
    }
    inotify_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotify_ < 0 || !loop_->Watch(inotify_, EPOLLIN, [this](uint32_t) { Notified(); })) {
        *why = std::string("cannot watch pseudo-terminals: ") + std::strerror(errno);
        return false;
    }
    if (!MakeFresh(why)) return false;
    std::fprintf(stderr, "vexlo: channel %u as a serial line at %s\n", bus_, link_.c_str());
    return true;
}

bool XSlcanPty::MakeFresh(std::string* why) {
    int fd = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    char slave[64];
    termios raw;
    int watch = -1;
    if (fd < 0 || grantpt(fd) != 0 || unlockpt(fd) != 0 || ptsname_r(fd, slave, sizeof(slave)) != 0 ||
        tcgetattr(fd, &raw) != 0 || (watch = inotify_add_watch(inotify_, slave, IN_OPEN)) < 0) {
        *why = std::string("cannot make a pseudo-terminal: ") + std::strerror(errno);
        if (fd >= 0) close(fd);
        return false;
    }
    // Raw from the start (the master's settings are the slave's): no echo, no line editing, no
    // CR/LF translation, whatever the client sets later.
    cfmakeraw(&raw);
    tcsetattr(fd, TCSANOW, &raw);
    // The link moves in one step, through a name nobody else uses, and only while it is ours.
    std::string temp, error;
    if (!fresh_slave_.empty() && (!linked_ || LinkTarget(link_) != fresh_slave_)) {
        error = "the link " + link_ + " was replaced by something else: it is no longer moved";
    } else {
        for (int i = 0; i < 10 && temp.empty(); ++i) {
            std::string name = link_ + ".vexlo" + std::to_string(getpid()) + "-" + std::to_string(i);
            if (symlink(slave, name.c_str()) == 0) temp = name;
            else if (errno != EEXIST) break;
        }
        if (temp.empty() || rename(temp.c_str(), link_.c_str()) != 0)
            error = "cannot make the link " + link_ + ": " + std::strerror(errno);
        if (!temp.empty() && !error.empty()) unlink(temp.c_str());
    }
    if (!error.empty()) {
        *why = error;
        linked_ = false;
        inotify_rm_watch(inotify_, watch);
        close(fd);
        return false;
    }
    fresh_ = fd;
    fresh_watch_ = watch;
    fresh_slave_ = slave;
    linked_ = true;
    return true;
}

void XSlcanPty::Notified() {
    alignas(inotify_event) char buf[4096];
    bool opened = false;
    ssize_t n;
    while ((n = read(inotify_, buf, sizeof(buf))) > 0) {
        for (ssize_t at = 0; at < n;) {
            const inotify_event* ev = reinterpret_cast<const inotify_event*>(buf + at);
            if (ev->wd == fresh_watch_ && (ev->mask & IN_OPEN)) opened = true;
            at += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
        }
    }
    if (opened && fresh_ >= 0) Opened();
}

void XSlcanPty::Opened() {
    int taken = fresh_;
    inotify_rm_watch(inotify_, fresh_watch_);
    fresh_ = fresh_watch_ = -1;
    // Nobody else joins this client's line, whatever name they open it by.
    int lock = 1;
    ioctl(taken, TIOCSPTLCK, &lock);
    std::string why;
    if (!MakeFresh(&why)) std::fprintf(stderr, "vexlo: %s\n", why.c_str());
    // A client that closed its line before this one opened the link is finished first.
    pollfd p{line_.fd(), POLLIN, 0};
    if (line_.attached() && poll(&p, 1, 0) == 1 && (p.revents & POLLHUP)) line_.Finish();
    if (line_.attached()) {
        std::fprintf(stderr, "vexlo: serial line %s: a second client was turned away\n", link_.c_str());
        close(taken);
        return;
    }
    line_.Attach(taken, nullptr);
}

// ---- TCP ----------------------------------------------------------------------------------------

XSlcanTcp::~XSlcanTcp() {
    line_.Detach();
    if (listen_ >= 0) {
        loop_->Forget(listen_);
        close(listen_);
    }
}

bool XSlcanTcp::Start(std::string* why) {
    std::string where = address_.find(':') == std::string::npos ? "127.0.0.1:" + address_ : address_, host;
    unsigned port = 0;
    if (!ParseHostPort(where, 0, &host, &port, why)) return false;
    addrinfo hints{}, *found = nullptr;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    int rc = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (rc != 0 || !found) {
        *why = "cannot listen on " + where + ": " + gai_strerror(rc);
        return false;
    }
    listen_ = socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int one = 1;
    if (listen_ >= 0) setsockopt(listen_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    bool ok = listen_ >= 0 && bind(listen_, found->ai_addr, found->ai_addrlen) == 0 && listen(listen_, 4) == 0;
    freeaddrinfo(found);
    if (!ok) {
        *why = "cannot listen on " + where + ": " + std::strerror(errno);
        return false;
    }
    loop_->Watch(listen_, EPOLLIN, [this](uint32_t) { Accept(); });
    std::fprintf(stderr, "vexlo: channel %u as a serial line on tcp %s\n", bus_, where.c_str());
    return true;
}

void XSlcanTcp::Accept() {
    for (;;) {
        sockaddr_storage peer{};
        socklen_t len = sizeof(peer);
        int fd = accept4(listen_, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) return;
        const char* refusal = !allow_.empty() && !CidrMatch(allow_, peer) ? "refused (not allowed)"
                            : line_.attached()                             ? "turned away: the line has a client"
                                                                           : nullptr;
        if (refusal) {
            std::fprintf(stderr, "vexlo: serial line tcp %s: client %s %s\n", address_.c_str(), PeerText(peer).c_str(),
                         refusal);
            close(fd);
            continue;
        }
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        line_.Attach(fd, nullptr);
    }
}

bool ParseSlcanOption(const std::string& value, std::string* where, unsigned* bus) {
    size_t eq = value.rfind('=');
    if (eq == std::string::npos || eq == 0) return false;
    std::string ch = value.substr(eq + 1);
    if (ch != "0" && ch != "1") return false;
    *where = value.substr(0, eq);
    *bus = static_cast<unsigned>(ch[0] - '0');
    return true;
}

}  // namespace vexlo_serve
