// The device's event thread and the dispatch of every transfer completion.
#include <pthread.h>

#include "CanDev.h"

// The IN transfers wait for data with the longest timeout libusb allows (about 49.7 days).
static const unsigned int kInTimeout = 0xFFFFFFFFu;

bool CanDev::Arm(CanXfer* xfer, int* ret) {
    // Tested under the transfer's lock, as Close sets it: nothing is armed once Close has begun.
    if (closing_) return false;
    *ret = xfer->Submit();
    return true;
}

void* CanDev::UsbThread(bool* stop, void* arg) {
    CanDev* dev = static_cast<CanDev*>(arg);
    XDBG(XLOG_GENERAL, "+++ tid=0x%lx\n", static_cast<unsigned long>(pthread_self()));
    // Named so that it can be told apart in top, gdb and the benchmarks' per-thread accounts.
    pthread_setname_np(pthread_self(), "vexlo-usb");
    // Both records are filled before either is submitted. Only this thread arms them while the
    // device is open, so one found idle stays idle until its submission below.
    const int arm[2] = {CAN_XFER_CMD_IN, CAN_XFER_DATA_IN};
    bool idle[2] = {false, false};
    for (int k = 0; k < 2; ++k) {
        CanXfer* xfer = dev->GetXfer(arm[k]);
        XLock guard(xfer);
        idle[k] = !xfer->InFlight();
        if (idle[k]) xfer->Setup(UsbXferCb, kInTimeout);
    }
    for (int k = 0; k < 2; ++k) {
        CanXfer* xfer = dev->GetXfer(arm[k]);
        XLock guard(xfer);
        int r = 0;
        if (idle[k]) dev->Arm(xfer, &r);
    }
    while (!XThread::StopRequested(stop)) {
        struct timeval tv = {0, 100000};
        if (libusb_handle_events_timeout(nullptr, &tv) != 0) {
            XERR("libusb_handle_events_timeout failed\n");
            break;
        }
    }
    XDBG(XLOG_GENERAL, "---\n");
    return nullptr;
}

void CanDev::UsbXferCb(libusb_transfer* t) {
    CanXfer* xfer = static_cast<CanXfer*>(t->user_data);
    xfer->GetDev()->UsbXferDone(xfer);
}

void CanDev::UsbXferDone(CanXfer* xfer) {
    libusb_transfer* t = xfer->GetXfer();
    const int status = t->status;
    const U8 ep = xfer->ep_;
    const int size = t->actual_length;
    const unsigned long tid = static_cast<unsigned long>(pthread_self());
    const bool in = ep == 0x81 || ep == 0x82;

    // Every path ends with the transfer's lock held once more to record whether it is armed
    // again; after that lock is released nothing here touches the device, which Close may free.
    if (status == LIBUSB_TRANSFER_TIMED_OUT && in) {
        XDBG(XLOG_GENERAL | XLOG_TIMEOUT, "*** tid=0x%lx, ep=0x%02x, status=%d, size=%d\n", tid, ep, status, size);
        XLock guard(xfer);
        xfer->Setup(UsbXferCb, kInTimeout);
        int r = 0;
        if (!Arm(xfer, &r) || r != 0) xfer->SetInFlight(false);
        return;
    }

    XDBG(XLOG_GENERAL, "+++ tid=0x%lx, ep=0x%02x, status=%d, size=%d\n", tid, ep, status, size);
    if (status == LIBUSB_TRANSFER_COMPLETED) {
        if (ep == 0x82) {
            Recv(xfer);
        } else {
            // The waiter is woken before the IN transfer is armed again: it need not wait for a
            // submission. The transfer stays marked in flight meanwhile, so Close waits for it.
            XLock guard(xfer);
            if (ep == 0x01 || ep == 0x02 || ep == 0x81) xfer->Capture(ep == 0x81);
            if (ep == 0x81) acks_.Push(xfer->GetData(), xfer->GetSize());
            if (!in) xfer->SetInFlight(false);
            xfer->Signal();
        }
        if (in) {
            int r = 0;
            bool tried;
            {
                XLock guard(xfer);
                tried = Arm(xfer, &r);
                if (r == LIBUSB_ERROR_NO_DEVICE) Unplugged();
                if (!tried || r != 0) xfer->SetInFlight(false);
            }
            if (tried) {
                XDBG(XLOG_GENERAL, "submit: ep=0x%02x, ret=%d\n", ep, r);
            } else {
                XDBG(XLOG_GENERAL, "submit: ep=0x%02x, not armed again: device closing\n", ep);
            }
        }
    } else if (status == LIBUSB_TRANSFER_CANCELLED) {
        XLock guard(xfer);
        xfer->SetInFlight(false);
        xfer->Signal();
    } else {
        // A failed transfer wakes nobody: a waiting exchange ends by its own timeout. It is not
        // re-armed; only the end of its flight is recorded, for Close.
        XWRN("xfer failed: ep=0x%02x, status=%d, size=%d\n", ep, status, size);
        // The application learns of an unplug through its descriptors, vexlo_present and
        // vexlo_receive; the VCI_* calls go on failing by their timeouts.
        if (status == LIBUSB_TRANSFER_NO_DEVICE) Unplugged();
        XLock guard(xfer);
        xfer->SetInFlight(false);
    }
    XDBG(XLOG_GENERAL, "--- tid=0x%lx\n", tid);
}

void CanDev::WaitDelivered(CanXfer* xfer, int ms) {
    // The caller's packet may be read by the USB stack until the cancelled transfer's completion
    // has been delivered. Events are pumped here as well, so this ends even when no event thread
    // is handling them.
    XTimer timer;
    while (xfer->InFlight()) {
        timer.Stop();
        if (timer.msecs() > static_cast<unsigned long long>(ms)) {
            XERR("xfer still in flight: ep=0x%02x\n", xfer->ep_);
            return;
        }
        xfer->Unlock();
        struct timeval tv = {0, 10000};
        libusb_handle_events_timeout_completed(nullptr, &tv, nullptr);
        xfer->Lock();
    }
}
