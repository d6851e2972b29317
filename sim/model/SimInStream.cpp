#include "model/SimInStream.h"

#include <utility>

namespace vexlo_sim {

Bytes SimInStream::Frame(const std::vector<SimRecord>& recs) {
    Bytes out(recs.size() * kRecordSize);
    for (size_t i = 0; i < recs.size(); ++i) recs[i].Encode(out.data() + i * kRecordSize);
    if (!out.empty() && out.size() % kPacketSize == 0) out.push_back(0);
    return out;
}

bool SimInStream::PushRecord(const SimRecord& r) {
    if (records_ >= capacity_) return false;
    Item it;
    it.rec = r;
    items_.push_back(std::move(it));
    ++records_;
    return true;
}

void SimInStream::PushRaw(Bytes raw) {
    Item it;
    it.raw = true;
    it.bytes = std::move(raw);
    items_.push_back(std::move(it));
}

void SimInStream::Clear() {
    items_.clear();
    partial_.clear();
    records_ = 0;
}

void SimInStream::Chunk(size_t room, Bytes* out) {
    size_t n = partial_.size();
    if (n > room) {
        // Whole packets only, so the host sees a multiple of 64 and keeps gathering.
        n = room >= kPacketSize ? room - room % kPacketSize : room;
    }
    out->assign(partial_.begin(), partial_.begin() + static_cast<long>(n));
    partial_.erase(partial_.begin(), partial_.begin() + static_cast<long>(n));
}

bool SimInStream::Take(size_t room, Bytes* out) {
    if (partial_.empty()) {
        if (items_.empty()) return false;
        if (items_.front().raw) {
            *out = std::move(items_.front().bytes);
            items_.pop_front();
            if (out->size() > room) out->resize(room);
            return true;
        }
        std::vector<SimRecord> recs;
        while (!items_.empty() && !items_.front().raw && recs.size() < max_records_) {
            recs.push_back(items_.front().rec);
            items_.pop_front();
            --records_;
        }
        partial_ = Frame(recs);
    }
    Chunk(room, out);
    return true;
}

}  // namespace vexlo_sim
