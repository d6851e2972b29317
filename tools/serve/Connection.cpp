#include "Connection.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "BusSetup.h"

namespace vexlo_serve {

XConnection::XConnection(XLoop* loop, XHubAccess* hub, const std::vector<std::string>* bus_names, int fd, std::string peer,
                         std::function<void(XConnection*)> done)
    : loop_(loop), hub_(hub), bus_names_(bus_names), fd_(fd), peer_(std::move(peer)), done_(std::move(done)),
      out_(kOutLimit) {
    std::memset(&retry_, 0, sizeof(retry_));
}

XConnection::~XConnection() {
    if (!destroyed_) {
        // The server stops: no answer, no linger.
        hub_->Leave(this);
        loop_->Forget(fd_);
        close(fd_);
    }
}

void XConnection::Begin() {
    std::fprintf(stderr, "vexlo: client %s connected\n", peer_.c_str());
    loop_->Watch(fd_, 0, [this](uint32_t events) { OnEvents(events); });
    Reply("< hi >");
    UpdateWatch();
}

void XConnection::UpdateWatch() {
    if (destroyed_) return;
    uint32_t events = 0;
    // Closing, the client's bytes are read and dropped until its end.
    if (closing_ ? !peer_done_ : !waiting_ && out_.size() < kOutLimit) events |= EPOLLIN;
    if (!out_.empty() && !(hold_ && !closing_)) events |= EPOLLOUT;
    if (events != watched_) {
        watched_ = events;
        loop_->Change(fd_, events);
    }
}

void XConnection::Reply(const std::string& text) {
    if (closing_) return;
    out_.Force(text);
    // Answers go out even while frames are held.
    bool held = hold_;
    hold_ = false;
    Flush();
    hold_ = held;
    UpdateWatch();
}

void XConnection::Notify(const std::string& text) {
    if (!closing_ && out_.Append(text)) Flush();
}

void XConnection::Emit(const VEXLO_FRAME& f) {
    size_t n = FormatEvent(f, text_);
    if (!out_.Append(text_, n)) {
        ++lost_;
        if (!loss_timer_.pending()) {
            std::fprintf(stderr, "vexlo: client %s reads too slowly: frames dropped\n", peer_.c_str());
            loss_timer_.At(loop_, MonoUs() + 1000000, [this] { ReportLoss(); });
        }
    }
}

void XConnection::ReportLoss() {
    if (lost_ == lost_reported_) return;
    std::fprintf(stderr, "vexlo: client %s: %llu frames dropped in the last second, %llu in all\n", peer_.c_str(),
                 static_cast<unsigned long long>(lost_ - lost_reported_), static_cast<unsigned long long>(lost_));
    lost_reported_ = lost_;
    loss_timer_.At(loop_, MonoUs() + 1000000, [this] { ReportLoss(); });
}

void XConnection::Flush() {
    if (hold_ || destroyed_) return;
    if (!out_.empty() && !out_.WriteTo(fd_)) {
        // The peer is gone; reading tells the rest.
        Destroy();
        return;
    }
    UpdateWatch();
}

bool XConnection::Send(const CAN_OBJ& frame, bool retry_when_full) {
    switch (hub_->Send(this, frame)) {
    case XHubAccess::kQueued:
        return true;
    case XHubAccess::kFull:
        if (retry_when_full) {
            waiting_ = true;
            retry_ = frame;
            UpdateWatch();
        }
        return true;
    case XHubAccess::kListenOnly:
        Error(hub_->listen_only() ? "the server is listen-only" : "the bus is listen-only");
        return false;
    case XHubAccess::kNotJoined:
        break;
    }
    Error("no bus open");
    return false;
}

void XConnection::OnFrames(const VEXLO_FRAME* frames, unsigned count) {
    if (closing_) return;
    if (mode_ == kRaw) raw_.OnFrames(this, frames, count);
    else if (mode_ == kBcm) bcm_.OnFrames(this, frames, count);
    else return;
    Flush();
}

void XConnection::OnRefused(const CAN_OBJ&) { Error("frame not taken by the adapter"); }

void XConnection::OnRoom() {
    if (!waiting_ || closing_) return;
    waiting_ = false;
    Send(retry_, true);
    if (!waiting_) Process();
    UpdateWatch();
}

void XConnection::OnGone() { Close("adapter unplugged", "adapter unplugged"); }

void XConnection::OnEvents(uint32_t events) {
    if ((events & EPOLLOUT) && !hold_) {
        size_t before = out_.size();
        if (!out_.WriteTo(fd_)) {
            Destroy();
            return;
        }
        // Progress while closing: wait again for the rest.
        if (closing_ && out_.size() < before) Linger();
        if (destroyed_) return;
    }
    if (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) ReadInput(events);
    UpdateWatch();
}

void XConnection::ReadInput(uint32_t events) {
    // Input waits for the hub: nothing more is read until it has been taken.
    bool waits = input_pos_ < input_.size() && !closing_;
    ssize_t n = -1;
    char buf[4096];
    if (!waits) n = recv(fd_, buf, sizeof(buf), MSG_DONTWAIT);
    if (n < 0 && !waits && errno != EAGAIN && errno != EINTR) events |= EPOLLERR;
    // Both directions closed, or reset (a client that closes with input unread): nothing more
    // reaches the client.
    if (events & (EPOLLHUP | EPOLLERR)) {
        if (!closing_) Finish("closed by the client");
        Destroy();
        return;
    }
    if (n < 0) return;
    if (n == 0) {
        peer_done_ = true;
        if (!closing_) Close("closed by the client");
        else Linger();
        return;
    }
    if (closing_) return;  // the rest of what the client says is not read any more
    input_.assign(buf, static_cast<size_t>(n));
    input_pos_ = 0;
    Process();
}

void XConnection::Process() {
    while (input_pos_ < input_.size() && !waiting_ && !closing_ && !destroyed_) {
        switch (reader_.Take(input_[input_pos_++], &command_)) {
        case XCommandReader::kNone:
            break;
        case XCommandReader::kTooLong:
            Close("command too long", "command too long");
            return;
        case XCommandReader::kCommand: {
            XCommand cmd;
            std::string error;
            if (!ParseCommand(command_, &cmd, &error)) Error(error);
            else Handle(cmd);
            break;
        }
        }
    }
}

void XConnection::Handle(const XCommand& cmd) {
    if (cmd.kind == XCommand::kEcho) {
        Reply("< echo >");
        return;
    }
    if (cmd.kind == XCommand::kBusTiming || cmd.kind == XCommand::kBusMode) {
        if (mode_ != kNoBus) Error("a bus is configured before it is opened");
        else ConfigureBus(cmd);
        return;
    }
    if (mode_ == kNoBus) {
        if (cmd.kind != XCommand::kOpen) {
            Error("no bus open");
            return;
        }
        for (size_t b = 0; b < bus_names_->size(); ++b) {
            if ((*bus_names_)[b] == cmd.bus && hub_->Join(this, static_cast<unsigned>(b))) {
                bus_ = static_cast<int>(b);
                mode_ = kBcm;
                std::fprintf(stderr, "vexlo: client %s opened %s\n", peer_.c_str(), cmd.bus.c_str());
                Reply("< ok >");
                return;
            }
        }
        Close("could not open bus", "could not open bus");
        return;
    }
    std::string error;
    switch (cmd.kind) {
    case XCommand::kOpen:
        Error("a bus is open already");
        return;
    case XCommand::kRawMode:
    case XCommand::kBcmMode:
    case XCommand::kControlMode:
        raw_.Leave(this);
        control_.Stop(this);
        mode_ = cmd.kind == XCommand::kRawMode ? kRaw : cmd.kind == XCommand::kBcmMode ? kBcm : kControl;
        Reply("< ok >");
        if (mode_ == kRaw && !closing_ && !destroyed_) raw_.Enter(this);
        return;
    case XCommand::kIsotpMode:
        Error("isotp mode is not supported");
        return;
    case XCommand::kBitTiming:
        Error("the bit timing is set when the server starts");
        return;
    case XCommand::kSend:
        Send(cmd.frame, true);
        return;
    case XCommand::kStatistics:
        if (mode_ != kControl) Error("statistics need control mode");
        else control_.Statistics(this, static_cast<unsigned>(bus_), cmd.ms);
        return;
    default:
        if (mode_ != kBcm) Error("this command needs bcm mode");
        else if (!bcm_.Handle(this, cmd, &error)) Error(error);
        return;
    }
}

void XConnection::ConfigureBus(const XCommand& cmd) {
    unsigned bus = 0;
    while (bus < bus_names_->size() && (*bus_names_)[bus] != cmd.bus) ++bus;
    if (bus == bus_names_->size()) {
        Error("no bus named " + cmd.bus);
        return;
    }
    CAN_INIT init = hub_->Config(bus);
    std::string error;
    if (!(cmd.kind == XCommand::kBusTiming ? BusTiming(cmd, &init, &error) : BusMode(cmd, &init, &error))) {
        Error(error);
        return;
    }
    if (hub_->listen_only() && !init.ListenOnly) {
        Error("the server is listen-only");
        return;
    }
    // A change of what other clients use needs them gone, as on a kernel's interface.
    if (!hub_->present()) Error("adapter unplugged");
    else if (hub_->Busy(this, bus)) Error("the bus is in use by another client");
    else if (!hub_->Configure(this, bus, init)) Error("the adapter refused the configuration");
    else {
        unsigned rate = 0, sample = 0;
        vexlo_rate_for_timing(init.BusTiming0, init.BusTiming1, &rate, &sample);
        std::fprintf(stderr, "vexlo: client %s set %s: %u bit/s, sample point %u.%u%% (timing %02X:%02X)%s\n",
                     peer_.c_str(), cmd.bus.c_str(), rate, sample / 10, sample % 10, init.BusTiming0, init.BusTiming1,
                     init.ListenOnly ? ", listen-only" : "");
        Reply("< ok >");
    }
}

void XConnection::Close(const std::string& why, const std::string& error) {
    if (closing_ || destroyed_) return;
    if (!error.empty()) Error(error);
    if (destroyed_) return;  // the answer found the client gone
    Finish(why);
    Linger();
}

void XConnection::Finish(const std::string& why) {
    closing_ = true;
    // The client's frames still go out; it gets nothing more from the hub.
    hub_->Release(this);
    bcm_.Stop(this);
    control_.Stop(this);
    raw_.Leave(this);
    hold_ = false;
    std::string bus = bus_ >= 0 ? (*bus_names_)[static_cast<size_t>(bus_)] + ", " : std::string();
    std::fprintf(stderr, "vexlo: client %s disconnected (%s%s%llu frames dropped)\n", peer_.c_str(), why.c_str(),
                 (", " + bus).c_str(), static_cast<unsigned long long>(lost_));
    loss_timer_.Cancel();
}

void XConnection::Linger() {
    if (!out_.WriteTo(fd_)) {
        Destroy();
        return;
    }
    if (out_.empty()) {
        if (peer_done_) {
            Destroy();
            return;
        }
        if (!shut_) shutdown(fd_, SHUT_WR);
        shut_ = true;
    }
    linger_.At(loop_, MonoUs() + kLingerUs, [this] { Destroy(); });
    UpdateWatch();
}

void XConnection::Destroy() {
    if (destroyed_) return;
    if (!closing_) Finish("connection lost");
    destroyed_ = true;
    linger_.Cancel();
    loop_->Forget(fd_);
    close(fd_);
    done_(this);
}

}  // namespace vexlo_serve
