#include "OutQueue.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace vexlo_serve {

bool XOutQueue::Append(const char* text, size_t len) {
    if (size() + len > limit_) return false;
    if (head_ > 0 && head_ >= buf_.size() / 2) {
        buf_.erase(0, head_);
        head_ = 0;
    }
    buf_.append(text, len);
    return true;
}

void XOutQueue::Force(const std::string& text) {
    if (head_ > 0) {
        buf_.erase(0, head_);
        head_ = 0;
    }
    buf_ += text;
}

bool XOutQueue::WriteTo(int fd) {
    while (head_ < buf_.size()) {
        // send() on sockets (no SIGPIPE), write() on anything else (a pty).
        ssize_t n = send(fd, buf_.data() + head_, buf_.size() - head_, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno == ENOTSOCK) n = write(fd, buf_.data() + head_, buf_.size() - head_);
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno == EAGAIN || errno == EWOULDBLOCK;
        }
        head_ += static_cast<size_t>(n);
    }
    buf_.clear();
    head_ = 0;
    return true;
}

}  // namespace vexlo_serve
