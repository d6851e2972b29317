#include "SlcanLine.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
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
// Bytes read from a client per read; a readable client gets at most kReads of them per round, so
// one busy line never starves the others.
const size_t kReadSize = 4096;
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
    dropped_ = 0;
    watched_ = 0;
    Watch();
}

void XSlcanLine::Detach() {
    if (fd_ < 0) return;
    session_.End();
    if (watched_) loop_->Forget(fd_);
    close(fd_);
    fd_ = -1;
    if (dropped_)
        std::fprintf(stderr, "vexlo: %s: client gone; %llu lines were dropped for reading too slowly\n", name_.c_str(),
                     static_cast<unsigned long long>(dropped_));
}

void XSlcanLine::Watch() {
    // No more input while the session waits for the hub: the client's bytes stay in its
    // descriptor, which holds the client back.
    uint32_t events = (session_.waiting() ? 0u : uint32_t{EPOLLIN}) | (out_.empty() ? 0u : uint32_t{EPOLLOUT});
    if (events == watched_) return;
    if (events == 0) loop_->Forget(fd_);
    else if (watched_ == 0) loop_->Watch(fd_, events, [this](uint32_t e) { Events(e); });
    else loop_->Change(fd_, events);
    watched_ = events;
}

void XSlcanLine::Events(uint32_t events) {
    bool gone = (events & EPOLLOUT) && !out_.WriteTo(fd_);
    for (int i = 0; !gone && i < kReads && !session_.waiting() && (events & (EPOLLIN | EPOLLHUP | EPOLLERR)); ++i) {
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
        Flush(text_, false);
    }
    if (!gone && !out_.empty()) gone = !out_.WriteTo(fd_);
    if (gone) {
        std::function<void()> hangup = on_hangup_;
        Detach();
        if (hangup) hangup();
        return;
    }
    Watch();
}

void XSlcanLine::Flush(const std::string& text, bool frame) {
    if (text.empty()) return;
    bool fits = frame ? out_.Append(text) : out_.size() + text.size() <= kOutLimit + kReplyRoom;
    if (fits && !frame) out_.Force(text);
    if (fits) return;
    ++dropped_;
    if (frame) session_.Lost();
}

void XSlcanLine::OnFrames(const VEXLO_FRAME* frames, unsigned count) {
    if (fd_ < 0) return;
    for (unsigned i = 0; i < count; ++i) {
        text_.clear();
        session_.Received(frames[i], &text_);
        Flush(text_, true);
    }
    out_.WriteTo(fd_);
    Watch();
}

void XSlcanLine::OnRefused(const CAN_OBJ&) { session_.Refused(); }

void XSlcanLine::OnRoom() {
    if (fd_ < 0) return;
    text_.clear();
    session_.Resume(&text_);
    Flush(text_, false);
    Watch();
}

void XSlcanLine::OnGone() { session_.End(); }

bool XSlcanLine::Configure(const CAN_INIT& init) {
    if (!hub_->Configure(this, bus_, init)) return false;
    unsigned rate = 0, sample = 0;
    vexlo_rate_for_timing(init.BusTiming0, init.BusTiming1, &rate, &sample);
    std::fprintf(stderr, "vexlo: channel %u set by %s: %u bit/s (timing %02X:%02X), acceptance code %08X mask %08X\n", bus_,
                 name_.c_str(), rate, init.BusTiming0, init.BusTiming1, init.AcceptCode, init.AcceptMask);
    return true;
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

XSlcanPty::~XSlcanPty() {
    line_.Detach();
    unlink(link_.c_str());
}

bool XSlcanPty::Start(std::string* why) {
    if (!Renew(why)) return false;
    std::fprintf(stderr, "vexlo: channel %u as a serial line at %s\n", bus_, link_.c_str());
    return true;
}

bool XSlcanPty::Renew(std::string* why) {
    int fd = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    char slave[64];
    termios raw;
    if (fd < 0 || grantpt(fd) != 0 || unlockpt(fd) != 0 || ptsname_r(fd, slave, sizeof(slave)) != 0 ||
        tcgetattr(fd, &raw) != 0) {
        *why = std::string("cannot make a pseudo-terminal: ") + std::strerror(errno);
        if (fd >= 0) close(fd);
        return false;
    }
    // Raw from the start (the master's settings are the slave's): no echo, no line editing, no
    // CR/LF translation, whatever the client sets later.
    cfmakeraw(&raw);
    tcsetattr(fd, TCSANOW, &raw);
    // The link moves in one step: a client opening it finds the old slave or the new one, never none.
    std::string temp = link_ + ".new";
    unlink(temp.c_str());
    if (symlink(slave, temp.c_str()) != 0 || rename(temp.c_str(), link_.c_str()) != 0) {
        *why = "cannot make the link " + link_ + ": " + std::strerror(errno);
        unlink(temp.c_str());
        close(fd);
        return false;
    }
    line_.Attach(fd, [this] {
        std::string error;
        if (!Renew(&error)) std::fprintf(stderr, "vexlo: %s\n", error.c_str());
    });
    return true;
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
    int fd = accept4(listen_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    if (line_.attached()) {
        std::fprintf(stderr, "vexlo: serial line tcp %s: a second client was turned away\n", address_.c_str());
        close(fd);
        return;
    }
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    line_.Attach(fd, nullptr);
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
