// One reusable asynchronous libusb bulk transfer on one endpoint of the adapter.
//
// The object is its own lock and wake-up signal: the completion side captures the byte count (and
// for the command IN endpoint the bytes) and signals under the lock; the waiting side tests the
// count under the same lock before it sleeps, so no completion is missed.
#pragma once

#include <libusb.h>

#include <vector>

#include "utils.h"

class CanDev;

class CanXfer : public XSignal {
public:
    typedef void (*Callback)(libusb_transfer*);

    CanXfer();
    ~CanXfer();
    CanXfer(const CanXfer&) = delete;
    CanXfer& operator=(const CanXfer&) = delete;

    void Init(CanDev* dev, U8 ep, U32 bufsz);
    // Fills the record for the transfer's own buffer, or for the caller's `data` of `size` bytes;
    // the caller's buffer must stay valid until the completion has been delivered.
    void Setup(Callback cb, unsigned int timeout);
    void Setup(void* data, int size, Callback cb, unsigned int timeout);
    // Submit and the in-flight mark are made under the object's lock (the caller holds it).
    int Submit();
    int Cancel();
    void Capture(bool copy);
    // Copies an outgoing packet into memory the transfer owns and returns it: a transfer that an
    // exchange gave up on may still be read by the USB stack, never from the caller's memory.
    U8* Hold(const void* data, U32 size);

    libusb_transfer* GetXfer() { return xfer_; }
    CanDev* GetDev() { return dev_; }
    U8* GetData() { return data_.empty() ? nullptr : data_.data(); }
    U32 GetSize() const { return __atomic_load_n(&size_, __ATOMIC_ACQUIRE); }
    // Forgets the last completion. The exchanges clear the command IN transfer under its lock, so
    // that a completion captured at the same moment is either wholly forgotten or wholly kept.
    void ClrSize() {
        __atomic_store_n(&size_, 0, __ATOMIC_RELEASE);
        __atomic_store_n(&captured_, false, __ATOMIC_RELEASE);
    }
    // True once a completion has been captured since ClrSize, even one of zero bytes: a waiter
    // tests this, not the size, so that an empty answer that comes before it looks is not
    // mistaken for no answer at all.
    bool Captured() const { return __atomic_load_n(&captured_, __ATOMIC_ACQUIRE); }

    // True from a successful Submit until its completion has been delivered (under the lock).
    bool InFlight() const { return inflight_; }
    void SetInFlight(bool on) { inflight_ = on; }

    libusb_transfer* xfer_;
    CanDev* dev_;
    U8 ep_;
    std::vector<U8> buffer_;
    std::vector<U8> data_;
    std::vector<U8> packet_;  // the packet of an OUT transfer (Hold); grows, never shrinks
    U32 size_;
    bool captured_;
    bool inflight_;
};
