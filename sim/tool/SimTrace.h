// The bus trace of `vexlo-sim --trace`: every frame completed on a simulated bus, one line each in
// the candump log format, with the adapter and channel that sent it and the host's wall-clock time:
//   (1700000000.123456) sim0can1 123#DEADBEEF
// The engine only appends to a buffer under the trace's own lock; a writer thread of its own puts
// the buffer into the file when it fills and at least every 250 ms, and whatever is left at Close.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "model/SimWire.h"

namespace vexlo_sim {

class SimTrace {
public:
    SimTrace() = default;
    ~SimTrace() { Close(); }
    SimTrace(const SimTrace&) = delete;
    SimTrace& operator=(const SimTrace&) = delete;

    // Appends one line: identifier of 3 hex digits (standard) or 8 (extended), data in upper-case
    // hex without separators, "R" for a remote frame with its length digit when not 0; a length
    // code above 8 carries 8 bytes and follows as "_X" (123#R_9, 123#0011223344556677_C).
    static void AppendLine(std::string* out, uint64_t wall_ns, unsigned adapter, unsigned ch,
                           const SimFrame& f);

    // Opens FILE ("-": stderr) and starts the writer; false with a message in *error.
    bool Open(const std::string& path, std::string* error);
    // A frame that ended at `end` (the model's monotonic nanoseconds) on the bus of `ch`.
    void Add(unsigned adapter, unsigned ch, const SimFrame& f, uint64_t end);
    // Writes what is left, closes the file and reports on stderr what could not be written.
    void Close();

private:
    static constexpr size_t kWriteAt = 256 * 1024;       // the writer is woken at this size
    static constexpr size_t kMaxPending = 64 << 20;      // beyond this a stuck file loses lines
    static constexpr unsigned kFlushMs = 250;

    void Writer();
    bool WriteAll(const std::string& buf);

    int fd_ = -1;
    bool own_fd_ = false;
    std::string path_;
    int64_t wall_offset_ = 0;  // wall clock minus the model's clock, in nanoseconds
    std::mutex mu_;
    std::condition_variable cv_;
    std::string pending_;
    bool stop_ = false;
    bool failed_ = false;   // the file failed: nothing more is traced
    uint64_t lost_ = 0;     // frames not traced: the buffer was full or the file failed
    std::thread writer_;
};

}  // namespace vexlo_sim
