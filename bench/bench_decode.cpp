// Decoding and queueing on one core: whole 53-record messages through CanDev::Recv, as the event
// thread hands them over, into the channel rings.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "CanDev.h"

static void Discard(const char*, size_t) {}

static void BM_RecvDecodeAndQueue(benchmark::State& state) {
    XLogSetSink(Discard);
    CanDev dev;
    const U32 k = 53;
    std::vector<U8> msg(k * CAN_REC_SIZE);
    for (U32 i = 0; i < k; ++i) {
        CAN_OBJ obj;
        memset(&obj, 0, sizeof(obj));
        obj.Id = 0x100 + i;
        obj.DataLength = 8;
        CAN_OBJX* rec = reinterpret_cast<CAN_OBJX*>(&msg[i * CAN_REC_SIZE]);
        CanPack(&obj, i % 2, rec);
        CanPutLe32(rec->TimeStamp, i);
    }
    CanXfer* xfer = dev.GetXfer(CAN_XFER_DATA_IN);
    libusb_transfer* t = xfer->GetXfer();
    t->buffer = msg.data();
    t->actual_length = static_cast<int>(msg.size());
    U64 frames = 0;
    for (auto _ : state) {
        dev.Recv(xfer);
        frames += k;
        // Keep the rings from filling, as the application's receive would (an O(1) discard).
        if (dev.GetFifo(0)->Size() > 0x8000) {
            dev.GetFifo(0)->Clear();
            dev.GetFifo(1)->Clear();
        }
    }
    t->buffer = xfer->buffer_.data();
    t->actual_length = 0;
    state.SetItemsProcessed(static_cast<int64_t>(frames));
    state.counters["ratio_to_bus_ceiling"] =
        benchmark::Counter(static_cast<double>(frames) / 42553.0, benchmark::Counter::kIsRate);
    XLogSetSink(nullptr);
}
BENCHMARK(BM_RecvDecodeAndQueue);

BENCHMARK_MAIN();
