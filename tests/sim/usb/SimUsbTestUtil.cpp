#include "SimUsbTestUtil.h"

namespace vexlo_sim {

SimHost::~SimHost() { Close(); }

bool SimHost::Open(unsigned position) {
    if (libusb_init(nullptr) != 0) return false;
    libusb_device** list = nullptr;
    ssize_t n = libusb_get_device_list(nullptr, &list);
    unsigned seen = 0;
    for (ssize_t i = 0; i < n && !h_; ++i) {
        libusb_device_descriptor d;
        if (libusb_get_device_descriptor(list[i], &d) != 0) continue;
        if (d.idVendor != 0x0471 || d.idProduct != 0x1200) continue;
        if (seen++ != position) continue;
        if (libusb_open(list[i], &h_) != 0) h_ = nullptr;
    }
    if (list) libusb_free_device_list(list, 1);
    if (h_ && libusb_claim_interface(h_, 0) != 0) {
        libusb_close(h_);
        h_ = nullptr;
    }
    return h_ != nullptr;
}

void SimHost::Close() {
    if (!h_) return;
    libusb_release_interface(h_, 0);
    libusb_close(h_);
    h_ = nullptr;
}

int SimHost::Out(uint8_t ep, Bytes data) {
    int done = 0;
    return libusb_bulk_transfer(h_, ep, data.data(), static_cast<int>(data.size()), &done, 1000);
}

Bytes SimHost::Cmd(const Bytes& cmd) {
    Bytes ack(64);
    int got = 0;
    if (Out(kEpCmdOut, cmd) != 0 || libusb_bulk_transfer(h_, kEpCmdIn, ack.data(), 64, &got, 1000) != 0) got = 0;
    ack.resize(static_cast<size_t>(got));
    return ack;
}

int SimCountAdapters() {
    if (libusb_init(nullptr) != 0) return -1;
    libusb_device** list = nullptr;
    ssize_t n = libusb_get_device_list(nullptr, &list);
    int count = 0;
    for (ssize_t i = 0; i < n; ++i) {
        libusb_device_descriptor d;
        if (libusb_get_device_descriptor(list[i], &d) == 0 && d.idVendor == 0x0471 && d.idProduct == 0x1200)
            ++count;
    }
    if (list) libusb_free_device_list(list, 1);
    return count;
}

Bytes SimCmd(uint8_t code, std::vector<uint8_t> tail) {
    tail.insert(tail.begin(), {0x12, code, static_cast<uint8_t>(tail.empty() ? 1 : tail.size() + 1), 0});
    return tail;
}

}  // namespace vexlo_sim
