// Fuzz target of the reception path: any sequence of data IN transfers, fed to CanDev::Recv as
// the event thread would. Input: repeated [length low byte, length high byte, bytes...], each a
// transfer of (length mod 1025) bytes, cut short by the end of the input. Each transfer is copied
// to a buffer of exactly its size, so reading past the received bytes is caught by the sanitizer.
// Checked after every transfer: the cache is empty or holds a multiple of 64 below 1024 bytes,
// and the queues never hold more than their capacity.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "CanDev.h"

static void Discard(const char*, size_t) {}

static CanDev* Device() {
    static CanDev* dev = [] {
        XLogSetSink(Discard);
        return new CanDev();
    }();
    return dev;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CanDev* dev = Device();
    dev->cachelen_ = 0;
    dev->GetFifo(0)->Clear();
    dev->GetFifo(1)->Clear();
    memset(dev->err_, 0, sizeof(dev->err_));
    CanXfer* xfer = dev->GetXfer(CAN_XFER_DATA_IN);
    libusb_transfer* t = xfer->GetXfer();
    size_t pos = 0;
    while (pos + 2 <= size) {
        size_t len = (data[pos] | data[pos + 1] << 8) % 1025;
        pos += 2;
        if (len > size - pos) len = size - pos;
        std::vector<unsigned char> buf(data + pos, data + pos + len);
        pos += len;
        t->buffer = buf.empty() ? nullptr : buf.data();
        t->actual_length = static_cast<int>(len);
        dev->Recv(xfer);
        U32 c = dev->cachelen_;
        if (!(c == 0 || (c % 64 == 0 && c < 1024))) abort();
        if (dev->GetFifo(0)->Size() > 0x10000 || dev->GetFifo(1)->Size() > 0x10000) abort();
        for (int ch = -1; ch <= 1; ++ch) {
            U32 code = dev->GetError(ch)->ErrorCode;
            if (code != 0 && code != 1 && code != 2 && code != 4 && code != 8 && code != 16) abort();
        }
        if (dev->GetError(-1)->ErrorCode != 0) abort();  // notices never name the adapter
    }
    t->buffer = xfer->buffer_.data();
    t->actual_length = 0;
    return 0;
}
