// The bytes waiting to be written to one client, with a hard limit.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace vexlo_serve {

// A client's output: text is appended whole or not at all, so a client that reads too slowly
// loses whole records (the caller counts them), never parts, and never costs more than `limit`
// bytes. Written to a non-blocking descriptor as far as it takes.
class XOutQueue {
public:
    explicit XOutQueue(size_t limit) : limit_(limit) {}
    // False, and nothing appended, when the text does not fit within the limit.
    bool Append(const char* text, size_t len);
    bool Append(const std::string& text) { return Append(text.data(), text.size()); }
    // Appends even beyond the limit (a protocol answer the client must get); the limit still
    // holds for frames.
    void Force(const std::string& text);
    // Writes what the descriptor takes. Returns false on an error other than EAGAIN (the peer
    // is gone).
    bool WriteTo(int fd);
    size_t size() const { return buf_.size() - head_; }
    bool empty() const { return size() == 0; }

private:
    size_t limit_;
    std::string buf_;
    size_t head_ = 0;
};

}  // namespace vexlo_serve
