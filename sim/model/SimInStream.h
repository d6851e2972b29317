// What the adapter sends on the data IN endpoint 0x82: received frames and notices waiting in the
// adapter's receive buffer, gathered into messages of whole 19-byte records (at most 53 records,
// 1007 bytes), and raw transfers injected as they are.
//
// The host reads a message as a bulk stream: a transfer whose length is a multiple of 64 bytes is
// continued by the next one. A message of whole records therefore must not end on a 64-byte
// boundary; one that would gets the optional trailing byte appended (length 19K + 1).
// A message longer than the host's transfer buffer is split at a multiple of 64 bytes and the rest
// follows in the next transfer.
#pragma once

#include <cstddef>
#include <deque>
#include <vector>

#include "model/SimWire.h"

namespace vexlo_sim {

class SimInStream {
public:
    static constexpr size_t kDefaultCapacity = 8192;  // records the receive buffer holds
    static constexpr size_t kMaxRecords = kMaxMessage / kRecordSize;  // 53

    // Message bytes of the records, ended as the 64-byte rule requires.
    static Bytes Frame(const std::vector<SimRecord>& recs);

    // False (record dropped) when the receive buffer is full.
    bool PushRecord(const SimRecord& r);
    // A transfer delivered with exactly these bytes (zero bytes: a zero-length packet).
    void PushRaw(Bytes raw);

    bool Empty() const { return items_.empty() && partial_.empty(); }
    size_t Records() const { return records_; }

    // The next transfer for a host buffer of `room` bytes; false when nothing waits.
    bool Take(size_t room, Bytes* out);
    void Clear();

    size_t capacity_ = kDefaultCapacity;
    size_t max_records_ = kMaxRecords;  // records per message

private:
    struct Item {
        bool raw = false;
        SimRecord rec;
        Bytes bytes;
    };
    void Chunk(size_t room, Bytes* out);

    std::deque<Item> items_;
    size_t records_ = 0;
    Bytes partial_;  // rest of a message that did not fit the previous transfer
};

}  // namespace vexlo_sim
