#include "Server.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace vexlo_serve {

namespace {
const int kSocketBuffer = 64 * 1024;
}  // namespace

XServer::~XServer() {
    conns_.clear();
    for (int l : listeners_) {
        loop_.Forget(l);
        close(l);
    }
    if (signals_ >= 0) {
        loop_.Forget(signals_);
        close(signals_);
    }
}

bool XServer::Listen(const std::string& where) {
    std::string host, error;
    unsigned port = 0;
    if (!ParseHostPort(where, 0, &host, &port, &error)) {
        std::fprintf(stderr, "vexlo: %s\n", error.c_str());
        return false;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* res = nullptr;
    int rc = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &res);
    if (rc != 0 || !res) {
        std::fprintf(stderr, "vexlo: cannot listen on %s: %s\n", where.c_str(), gai_strerror(rc));
        return false;
    }
    int fd = socket(res->ai_family, res->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int on = 1;
    if (fd >= 0) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (fd >= 0 && res->ai_family == AF_INET6) setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
    if (fd < 0 || bind(fd, res->ai_addr, res->ai_addrlen) != 0 || listen(fd, 64) != 0) {
        std::fprintf(stderr, "vexlo: cannot listen on %s: %s\n", where.c_str(), std::strerror(errno));
        if (fd >= 0) close(fd);
        freeaddrinfo(res);
        return false;
    }
    if (res->ai_family == AF_INET) beacon_addrs_.push_back(*reinterpret_cast<const sockaddr_in*>(res->ai_addr));
    freeaddrinfo(res);
    listeners_.push_back(fd);
    loop_.Watch(fd, EPOLLIN, [this, fd](uint32_t) { Accept(fd); });
    return true;
}

void XServer::Accept(int listener) {
    for (;;) {
        sockaddr_storage peer{};
        socklen_t len = sizeof(peer);
        int fd = accept4(listener, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                // Out of descriptors: the waiting client stays in the backlog; try again shortly.
                std::fprintf(stderr, "vexlo: cannot accept a client: %s\n", std::strerror(errno));
                for (int l : listeners_) loop_.Change(l, 0);
                if (!resume_accept_.pending())
                    resume_accept_.At(&loop_, MonoUs() + 100000, [this] {
                        for (int l : listeners_) loop_.Change(l, EPOLLIN);
                    });
            }
            return;
        }
        std::string who = PeerText(peer);
        const char* refusal = nullptr;
        if (!options_.allow.empty() && !CidrMatch(options_.allow, peer)) refusal = "not allowed";
        else if (live_ >= options_.max_clients) refusal = "too many clients";
        if (refusal) {
            std::fprintf(stderr, "vexlo: client %s refused (%s)\n", who.c_str(), refusal);
            std::string text = std::string("< error ") + refusal + " >";
            ssize_t r = send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            (void)r;
            close(fd);
            continue;
        }
        int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        // A fixed send buffer: the kernel's share of a slow client's backlog stays small too
        // (it would grow to megabytes by itself).
        int sndbuf = kSocketBuffer;
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof(sndbuf));
        ++live_;
        auto conn = std::make_unique<XConnection>(&loop_, &hub_, &options_.bus_names, fd, who, [this](XConnection* c) {
            --live_;
            ended_.push_back(c);
            if (!reap_.pending())
                reap_.At(&loop_, 0, [this] {
                    for (XConnection* e : ended_) conns_.erase(e);
                    ended_.clear();
                });
        });
        XConnection* c = conn.get();
        conns_[c] = std::move(conn);
        c->Begin();
    }
}

int XServer::Run() {
    if (!loop_.ok()) {
        std::fprintf(stderr, "vexlo: cannot make the event loop: %s\n", std::strerror(errno));
        return 1;
    }
    // The stop signals arrive through a descriptor; every thread started from here on (the
    // library's and the transmit thread) inherits the blocked mask.
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stops, nullptr);
    signal(SIGPIPE, SIG_IGN);
    signals_ = signalfd(-1, &stops, SFD_NONBLOCK | SFD_CLOEXEC);
    loop_.Watch(signals_, EPOLLIN, [this](uint32_t) { loop_.Stop(); });

    // Every port is taken before the adapter is touched.
    for (const std::string& where : options_.listen)
        if (!Listen(where)) return 1;
    std::string why;
    for (const auto& line : options_.slcan_tcp) {
        slcan_ports_.push_back(std::make_unique<XSlcanTcp>(&loop_, &hub_, line.second, line.first, options_.allow));
        if (!slcan_ports_.back()->Start(&why)) return std::fprintf(stderr, "vexlo: %s\n", why.c_str()), 1;
    }
    for (const auto& line : options_.slcan) {
        slcan_ptys_.push_back(std::make_unique<XSlcanPty>(&loop_, &hub_, line.second, line.first));
        if (!slcan_ptys_.back()->Start(&why)) return std::fprintf(stderr, "vexlo: %s\n", why.c_str()), 1;
    }
    if (!hub_.Start(&why)) {
        std::fprintf(stderr, "vexlo: cannot open adapter %u: %s\n", options_.hub.dev, why.c_str());
        return 1;
    }
    for (const auto& link : options_.socketcan) {
        can_links_.push_back(std::make_unique<XSocketCanLink>(&loop_, &hub_, link.first, link.second));
        if (!can_links_.back()->Start(&why)) return std::fprintf(stderr, "vexlo: %s\n", why.c_str()), 1;
    }
    hub_.WhenBack([this] {
        for (auto& link : can_links_) link->Back();
    });
    std::string where;
    for (const std::string& at : options_.listen) where += (where.empty() ? "" : ", ") + at;
    std::fprintf(stderr, "vexlo: serving adapter %u as %s and %s on %s\n", options_.hub.dev,
                 options_.bus_names[0].c_str(), options_.bus_names[1].c_str(), where.c_str());
    if (options_.beacon_off) {
    } else if (beacon_addrs_.empty()) {
        std::fprintf(stderr, "vexlo: no beacon: it names an IPv4 address to connect to, and the server listens on none\n");
    } else if (!beacon_.Start(&loop_, beacon_addrs_, options_.beacon_to ? &options_.beacon_target : nullptr,
                              options_.bus_names, "vexlo adapter " + std::to_string(options_.hub.dev))) {
        std::fprintf(stderr, "vexlo: no beacon: %s\n", std::strerror(errno));
    }
    int status = loop_.Run() ? 0 : 1;
    std::fprintf(stderr, "vexlo: stopping: %zu clients closed\n", live_);
    beacon_.Stop();
    conns_.clear();
    slcan_ptys_.clear();
    slcan_ports_.clear();
    can_links_.clear();
    hub_.Stop();
    return status;
}

}  // namespace vexlo_serve
