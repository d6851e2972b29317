#include "tool/SimTrace.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>


namespace vexlo_sim {
namespace {
const char kHex[] = "0123456789ABCDEF";
}

void SimTrace::AppendLine(std::string* out, uint64_t wall_ns, unsigned adapter, unsigned ch,
                          const SimFrame& f) {
    char buf[96];
    int n = std::snprintf(buf, sizeof buf, "(%llu.%06llu) sim%ucan%u %0*X#",
                          static_cast<unsigned long long>(wall_ns / 1000000000),
                          static_cast<unsigned long long>(wall_ns / 1000 % 1000000), adapter, ch,
                          f.ext ? 8 : 3, f.id);
    size_t len = static_cast<size_t>(n);
    unsigned bytes = f.dlc > 8 ? 8 : f.dlc;
    if (f.rtr) {
        buf[len++] = 'R';
        if (bytes) buf[len++] = kHex[bytes];
    } else {
        for (unsigned i = 0; i < bytes; ++i) {
            buf[len++] = kHex[f.data[i] >> 4];
            buf[len++] = kHex[f.data[i] & 0x0F];
        }
    }
    if (f.dlc > 8) {
        buf[len++] = '_';
        buf[len++] = kHex[f.dlc & 0x0F];
    }
    buf[len++] = '\n';
    out->append(buf, len);
}

bool SimTrace::Open(const std::string& path, std::string* error) {
    path_ = path == "-" ? "stderr" : path;
    if (path == "-") {
        fd_ = STDERR_FILENO;
    } else {
        fd_ = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd_ < 0) {
            *error = "cannot open trace file " + path + ": " + std::strerror(errno);
            return false;
        }
        own_fd_ = true;
    }
    // The model's clock is the steady clock in nanoseconds (SimTestbed::Now).
    auto wall = std::chrono::system_clock::now().time_since_epoch();
    auto mono = std::chrono::steady_clock::now().time_since_epoch();
    wall_offset_ = static_cast<int64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(wall - mono).count());
    writer_ = std::thread(&SimTrace::Writer, this);
    return true;
}

void SimTrace::Add(unsigned adapter, unsigned ch, const SimFrame& f, uint64_t end) {
    std::lock_guard<std::mutex> lock(mu_);
    if (failed_ || pending_.size() >= kMaxPending) {
        ++lost_;
        return;
    }
    size_t before = pending_.size();
    AppendLine(&pending_, static_cast<uint64_t>(static_cast<int64_t>(end) + wall_offset_), adapter, ch, f);
    if (before < kWriteAt && pending_.size() >= kWriteAt) cv_.notify_one();
}

bool SimTrace::WriteAll(const std::string& buf) {
    for (size_t off = 0; off < buf.size();) {
        ssize_t n = write(fd_, buf.data() + off, buf.size() - off);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            std::fprintf(stderr, "vexlo-sim: cannot write trace to %s: %s; tracing stops\n", path_.c_str(),
                         std::strerror(n < 0 ? errno : EIO));
            return false;
        }
        off += static_cast<size_t>(n);
    }
    return true;
}

void SimTrace::Writer() {
    std::string out;
    std::unique_lock<std::mutex> lock(mu_);
    for (;;) {
        cv_.wait_for(lock, std::chrono::milliseconds(kFlushMs),
                     [this] { return stop_ || pending_.size() >= kWriteAt; });
        bool last = stop_;
        out.clear();
        out.swap(pending_);
        lock.unlock();
        bool ok = WriteAll(out);
        lock.lock();
        if (!ok) {
            failed_ = true;  // Add counts every later frame as lost
            lost_ += static_cast<uint64_t>(std::count(out.begin(), out.end(), '\n'));
            return;
        }
        if (last) return;
    }
}

void SimTrace::Close() {
    if (!writer_.joinable()) return;
    {
        std::lock_guard<std::mutex> lock(mu_);
        stop_ = true;
        cv_.notify_one();
    }
    writer_.join();
    if (own_fd_ && close(fd_) != 0)
        std::fprintf(stderr, "vexlo-sim: cannot write trace to %s: %s\n", path_.c_str(),
                     std::strerror(errno));
    fd_ = -1;
    if (lost_)
        std::fprintf(stderr, "vexlo-sim: %llu frames missing from the trace in %s\n",
                     static_cast<unsigned long long>(lost_), path_.c_str());
}

}  // namespace vexlo_sim
