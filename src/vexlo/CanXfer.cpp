#include "CanXfer.h"

#include <cstring>

#include "CanDev.h"

CanXfer::CanXfer() : xfer_(nullptr), dev_(nullptr), ep_(0), size_(0), captured_(false), inflight_(false) {
    XDBG(XLOG_XFER, "+++\n");
    xfer_ = libusb_alloc_transfer(0);
    if (!xfer_) XERR("libusb_alloc_transfer failed\n");
    XDBG(XLOG_XFER, "---\n");
}

CanXfer::~CanXfer() {
    XDBG(XLOG_XFER, "+++ ep=0x%02x\n", ep_);
    if (xfer_) libusb_free_transfer(xfer_);
    XDBG(XLOG_XFER, "---\n");
}

void CanXfer::Init(CanDev* dev, U8 ep, U32 bufsz) {
    XDBG(XLOG_XFER, "+++ ep=0x%02x, bufsz=0x%04x(%d)\n", ep, bufsz, bufsz);
    dev_ = dev;
    ep_ = ep;
    buffer_.resize(bufsz);
    data_.resize(bufsz);
    XDBG(XLOG_XFER, "---\n");
}

void CanXfer::Setup(Callback cb, unsigned int timeout) {
    XDBG(XLOG_XFER, "*** ep=0x%02x, size=0x%04x, timeout=%d\n", ep_, static_cast<unsigned int>(buffer_.size()),
         static_cast<int>(timeout));
    if (!xfer_) return;
    libusb_fill_bulk_transfer(xfer_, dev_ ? dev_->GetDev() : nullptr, ep_, buffer_.empty() ? nullptr : buffer_.data(),
                              static_cast<int>(buffer_.size()), cb, this, timeout);
}

void CanXfer::Setup(void* data, int size, Callback cb, unsigned int timeout) {
    XDBG(XLOG_XFER, "*** ep=0x%02x, size=0x%04x, timeout=%d\n", ep_, static_cast<unsigned int>(size),
         static_cast<int>(timeout));
    if (!xfer_) return;
    libusb_fill_bulk_transfer(xfer_, dev_ ? dev_->GetDev() : nullptr, ep_, static_cast<unsigned char*>(data), size, cb,
                              this, timeout);
}

int CanXfer::Submit() {
    XDBG(XLOG_XFER, "*** ep=0x%02x\n", ep_);
    if (!xfer_) return LIBUSB_ERROR_NO_MEM;
    int r = libusb_submit_transfer(xfer_);
    if (r == 0) inflight_ = true;
    return r;
}

int CanXfer::Cancel() {
    XDBG(XLOG_XFER, "*** ep=0x%02x\n", ep_);
    if (!xfer_) return LIBUSB_ERROR_NOT_FOUND;
    return libusb_cancel_transfer(xfer_);
}

U8* CanXfer::Hold(const void* data, U32 size) {
    if (packet_.size() < size) packet_.resize(size);
    if (size != 0) memcpy(packet_.data(), data, size);
    return packet_.data();
}

void CanXfer::Capture(bool copy) {
    XDBG(XLOG_XFER, "*** ep=0x%02x\n", ep_);
    U32 n = xfer_->actual_length > 0 ? static_cast<U32>(xfer_->actual_length) : 0;
    __atomic_store_n(&size_, n, __ATOMIC_RELEASE);
    if (n != 0 && copy) {
        if (data_.size() < n) data_.resize(n);
        memcpy(data_.data(), xfer_->buffer, n);
    }
    __atomic_store_n(&captured_, true, __ATOMIC_RELEASE);
}
