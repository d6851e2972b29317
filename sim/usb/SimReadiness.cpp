#include "usb/SimReadiness.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace vexlo_sim {
namespace {
constexpr size_t kPage = 4096;
const char kZeroPage[kPage] = {};
}

SimReadiness::~SimReadiness() { Close(); }

void SimReadiness::Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
}

bool SimReadiness::Make(const std::string& path) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        std::fprintf(stderr, "vexlo-sim: cannot remove %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    if (mkfifo(path.c_str(), 0666) != 0) {
        std::fprintf(stderr, "vexlo-sim: mkfifo %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    fd_ = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd_ < 0) {
        std::fprintf(stderr, "vexlo-sim: open %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    Fill();
    return true;
}

void SimReadiness::Fill() {
    while (write(fd_, kZeroPage, kPage) == static_cast<ssize_t>(kPage)) {
    }
}

void SimReadiness::Set(bool ready) {
    if (fd_ < 0 || ready == ready_) return;
    ready_ = ready;
    // One page read from the full FIFO frees one page, so one page written fills it again: one
    // system call each way.
    if (ready) {
        char page[kPage];
        ssize_t n = read(fd_, page, kPage);
        (void)n;
    } else if (write(fd_, kZeroPage, kPage) != static_cast<ssize_t>(kPage)) {
        Fill();
    }
}

}  // namespace vexlo_sim
