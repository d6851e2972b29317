// vexlo serve at the bus ceiling, seen from its clients. Runs under vexlo-sim beside the server
// (see serve_ceiling.sh): N raw-mode clients on can0 and can1 read every frame for SECONDS, while
// this process also reads adapter 1 directly on its readiness descriptor, as an application
// without the server would. Then CYCLES connect/open/close cycles. Prints, per client, frames
// received and frames missing from the generator's sequence; the server's CPU time per frame per
// client; the latency from a frame's host time to its arrival, p50 and p99, for the clients and
// for the direct reader; and the server's descriptors and memory before and after the cycles. Fails
// on a frame missing, a cycle failed or a descriptor kept. --short: 1 s, 2 clients, 20 cycles
// (unless given), and only a client or cycle that could not open its bus fails the run.
//   bench_serve [--short] PORT SERVER_PID [SECONDS [CLIENTS [CYCLES]]]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "vexlo.h"
#include "vexlo_ext.h"

namespace {

uint64_t RealUs() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000 + static_cast<uint64_t>(ts.tv_nsec) / 1000;
}

// Latencies in 10 us steps up to 1 s.
struct Histogram {
    std::vector<uint64_t> bins = std::vector<uint64_t>(100001);
    uint64_t n = 0;
    void Add(int64_t us) {
        size_t b = us < 0 ? 0 : std::min<size_t>(static_cast<size_t>(us) / 10, bins.size() - 1);
        ++bins[b];
        ++n;
    }
    double Percentile(double p) const {
        uint64_t want = static_cast<uint64_t>(p * static_cast<double>(n)), seen = 0;
        for (size_t b = 0; b < bins.size(); ++b)
            if ((seen += bins[b]) > want) return static_cast<double>(b) * 10 / 1000.0;
        return 0;
    }
};

struct Client {
    int fd = -1;
    int bus = 0;
    std::string buf;
    uint64_t frames = 0, missing = 0;
    bool have_seq = false;
    uint32_t seq = 0;
};

int Connect(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) {
        close(fd);
        return -1;
    }
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return fd;
}

// Reads until `count` '>' have come (the answers of the opening); false when the socket ends.
bool Answers(int fd, int count) {
    char c;
    while (count > 0) {
        if (recv(fd, &c, 1, 0) != 1) return false;
        if (c == '>') --count;
    }
    return true;
}

bool OpenRaw(int fd, int bus) {
    std::string cmd = "< open can" + std::to_string(bus) + " >< rawmode >";
    return Answers(fd, 1) && send(fd, cmd.data(), cmd.size(), 0) == static_cast<ssize_t>(cmd.size()) && Answers(fd, 2);
}

// Hex or decimal digits up to the first other character.
uint64_t Digits(const char** p, int base) {
    uint64_t v = 0;
    for (;; ++*p) {
        char ch = **p;
        int d = ch >= '0' && ch <= '9' ? ch - '0' : base == 16 && ch >= 'A' && ch <= 'F' ? ch - 'A' + 10 : -1;
        if (d < 0) return v;
        v = v * static_cast<uint64_t>(base) + static_cast<uint64_t>(d);
    }
}

// Takes the whole messages of the client's buffer: "< frame ID SEC.USEC DATA >".
void Parse(Client* c, Histogram* h, uint64_t now) {
    size_t start = 0;
    for (;;) {
        size_t end = c->buf.find('>', start);
        if (end == std::string::npos) break;
        const char* m = c->buf.c_str() + start;
        if (!std::strncmp(m, "< frame ", 8)) {
            const char* p = m + 8;
            uint32_t seq = static_cast<uint32_t>(Digits(&p, 16));
            ++p;
            uint64_t sec = Digits(&p, 10);
            ++p;
            uint64_t us = sec * 1000000 + Digits(&p, 10);
            h->Add(static_cast<int64_t>(now) - static_cast<int64_t>(us));
            // The generator counts identifiers up from 0, modulo 0x800: a gap is a lost frame.
            if (c->have_seq) c->missing += (seq - c->seq - 1) & 0x7FF;
            c->have_seq = true;
            c->seq = seq;
            ++c->frames;
        }
        start = end + 1;
    }
    c->buf.erase(0, start);
}

uint64_t CpuTicks(int pid) {
    std::ifstream f("/proc/" + std::to_string(pid) + "/stat");
    std::string s((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    std::istringstream in(s.substr(s.rfind(')') + 2));
    std::string field;
    uint64_t utime = 0, stime = 0;
    for (int i = 3; i <= 15 && in >> field; ++i) {
        if (i == 14) utime = std::stoull(field);
        if (i == 15) stime = std::stoull(field);
    }
    return utime + stime;
}

long Fds(int pid) {
    long n = 0;
    DIR* d = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    while (d && readdir(d)) ++n;
    if (d) closedir(d);
    return n - 2;
}

long RssKb(int pid) {
    std::ifstream f("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(f, line))
        if (!line.compare(0, 6, "VmRSS:")) return std::atol(line.c_str() + 6);
    return 0;
}

// The direct reader: adapter 1, channel 0, on its readiness descriptor.
void Direct(std::atomic<bool>* stop, Histogram* h, uint64_t* frames) {
    VEXLO_FRAME buf[256];
    int fd = vexlo_receive_fd(1, 0);
    while (!stop->load()) {
        pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0) continue;
        int n = vexlo_receive(1, 0, buf, 256, 0);
        uint64_t now = RealUs();
        for (int i = 0; i < n; ++i)
            if (!(buf[i].flags & VEXLO_FRAME_ERROR)) {
                h->Add(static_cast<int64_t>(now) - static_cast<int64_t>(buf[i].host_us));
                ++*frames;
            }
    }
}

}  // namespace

int main(int argc, char** argv) {
    const bool brief = argc > 1 && std::strcmp(argv[1], "--short") == 0;
    if (brief) --argc, ++argv;
    if (argc < 3) {
        std::fprintf(stderr, "usage: bench_serve [--short] PORT SERVER_PID [SECONDS [CLIENTS [CYCLES]]]\n");
        return 2;
    }
    int port = std::atoi(argv[1]), pid = std::atoi(argv[2]);
    double seconds = argc > 3 ? std::atof(argv[3]) : brief ? 1 : 30;
    int nclients = argc > 4 ? std::atoi(argv[4]) : brief ? 2 : 8;
    int cycles = argc > 5 ? std::atoi(argv[5]) : brief ? 20 : 1000;

    // The direct reader's adapter, started like the server's (1 Mbit/s).
    CAN_INIT init;
    std::memset(&init, 0, sizeof(init));
    init.AcceptMask = 0xFFFFFFFF;
    init.BusTiming0 = 0x00;
    init.BusTiming1 = 0x14;
    bool direct = VCI_OpenDevice(4, 1, 0) && VCI_InitCAN(4, 1, 0, &init) && VCI_StartCAN(4, 1, 0);
    if (!direct) std::fprintf(stderr, "bench_serve: no adapter 1: no direct reader\n");

    std::vector<Client> clients(static_cast<size_t>(nclients));
    for (int i = 0; i < nclients; ++i) {
        Client& c = clients[static_cast<size_t>(i)];
        c.bus = i % 2;
        c.fd = Connect(port);
        if (c.fd < 0 || !OpenRaw(c.fd, c.bus)) {
            std::fprintf(stderr, "bench_serve: client %d could not open can%d\n", i, c.bus);
            return 1;
        }
    }
    // The first second settles (the rawmode answer's pause, the generators starting).
    Histogram lat, lat_direct;
    uint64_t direct_frames = 0;
    std::atomic<bool> stop{false};
    std::thread reader;
    if (direct) reader = std::thread(Direct, &stop, &lat_direct, &direct_frames);
    uint64_t start = RealUs(), measure_from = start + 1000000, end = measure_from + static_cast<uint64_t>(seconds * 1e6);
    uint64_t cpu0 = 0, self0 = 0, frames0 = 0;
    bool measuring = false;
    std::vector<pollfd> fds;
    for (Client& c : clients) fds.push_back({c.fd, POLLIN, 0});
    char buf[65536];
    for (;;) {
        uint64_t now = RealUs();
        if (!measuring && now >= measure_from) {
            measuring = true;
            cpu0 = CpuTicks(pid);
            self0 = CpuTicks(getpid());
            for (Client& c : clients) frames0 += c.frames;
            lat = Histogram();
            if (direct) lat_direct.n = 0, std::fill(lat_direct.bins.begin(), lat_direct.bins.end(), 0);
        }
        if (now >= end) break;
        if (poll(fds.data(), fds.size(), 100) <= 0) continue;
        for (size_t i = 0; i < fds.size(); ++i) {
            if (!(fds[i].revents & POLLIN)) continue;
            ssize_t n = recv(fds[i].fd, buf, sizeof(buf), MSG_DONTWAIT);
            if (n <= 0) continue;
            clients[i].buf.append(buf, static_cast<size_t>(n));
            Parse(&clients[i], &lat, RealUs());
        }
    }
    uint64_t cpu1 = CpuTicks(pid), frames1 = 0;
    for (Client& c : clients) frames1 += c.frames;
    stop = true;
    if (reader.joinable()) reader.join();

    std::printf("vexlo serve, %d raw-mode clients on can0 and can1, both buses at the 1 Mbit/s ceiling, %.0f s measured\n",
                nclients, seconds);
    uint64_t missing = 0;
    for (size_t i = 0; i < clients.size(); ++i) {
        std::printf("  client %zu (can%d): %llu frames, %llu missing from the sequence\n", i, clients[i].bus,
                    static_cast<unsigned long long>(clients[i].frames), static_cast<unsigned long long>(clients[i].missing));
        missing += clients[i].missing;
    }
    double cpu_s = static_cast<double>(cpu1 - cpu0) / static_cast<double>(sysconf(_SC_CLK_TCK));
    double delivered = static_cast<double>(frames1 - frames0);
    std::printf("frames delivered in the window: %.0f (%.0f per client per second); missing: %llu\n", delivered,
                delivered / nclients / seconds, static_cast<unsigned long long>(missing));
    std::printf("server CPU: %.2f s = %.2f us per frame per client (%.1f%% of one core)\n", cpu_s,
                delivered > 0 ? cpu_s * 1e6 / delivered : 0, 100 * cpu_s / seconds);
    std::printf("bench process CPU (clients and direct reader): %.2f s\n", static_cast<double>(CpuTicks(getpid()) - self0) / static_cast<double>(sysconf(_SC_CLK_TCK)));
    std::printf("latency host time -> client: p50 %.2f ms, p99 %.2f ms (%llu frames)\n", lat.Percentile(0.5),
                lat.Percentile(0.99), static_cast<unsigned long long>(lat.n));
    if (direct)
        std::printf("latency host time -> direct reader on the readiness descriptor: p50 %.2f ms, p99 %.2f ms (%llu frames)\n",
                    lat_direct.Percentile(0.5), lat_direct.Percentile(0.99), static_cast<unsigned long long>(lat_direct.n));
    for (Client& c : clients) close(c.fd);
    if (direct) VCI_CloseDevice(4, 1);

    // Connect, open, rawmode, close: the server's descriptors and memory stay flat.
    usleep(300000);
    long fds_before = Fds(pid), rss_before = RssKb(pid);
    int failed = 0;
    for (int i = 0; i < cycles; ++i) {
        int fd = Connect(port);
        if (fd < 0 || !OpenRaw(fd, i % 2)) ++failed;
        if (fd >= 0) close(fd);
    }
    usleep(300000);
    long fds_after = Fds(pid), rss_after = RssKb(pid);
    std::printf("%d connect/disconnect cycles (%d failed): server descriptors %ld -> %ld, resident memory %ld -> %ld kB\n",
                cycles, failed, fds_before, fds_after, rss_before, rss_after);
    if (brief) return failed ? 1 : 0;
    return missing || failed || fds_after != fds_before ? 1 : 0;
}
