#include "CanDev.h"

#include <cstring>

#include "vexlo_ext.h"

std::map<unsigned int, CanDev*> CanDev::devmap_;
XLock CanDev::devlck_;
XLock CanDev::cmdlck_;
XLock CanDev::fifolck_;
bool CanDev::usbinit_ = false;
thread_local int CanDev::openerr_ = VEXLO_OPEN_OK;

// The open error a failed libusb_open or claim stands for: another program holds the adapter,
// the user may not use it, or anything else.
static int OpenReason(int r) {
    if (r == LIBUSB_ERROR_BUSY) return VEXLO_OPEN_BUSY;
    if (r == LIBUSB_ERROR_ACCESS) return VEXLO_OPEN_DENIED;
    return VEXLO_OPEN_FAILED;
}

// How long Close waits for cancelled transfers to be delivered before it gives up on them.
static const int kCloseDrainMs = 5000;

CanDev::CanDev()
    : handle_(nullptr),
      claimed_(false),
      usbthread_(UsbThread, nullptr, this),
      fifo_{CanFifo(0x10000), CanFifo(0x10000)},
      cache_(CAN_CACHE_SIZE, 0),
      cachelen_(0),
      badmsgs_(0),
      gone_(false),
      index_(kNoIndex),
      closing_(false),
      closed_(false) {
    XDBG(XLOG_GENERAL, "+++\n");
    memset(err_, 0, sizeof(err_));
    for (int ch = 0; ch < 2; ++ch) ready_[ch].Bind(&notes_[ch], &gone_);
    xfers_[CAN_XFER_CMD_OUT].Init(this, 0x01, 0);
    xfers_[CAN_XFER_CMD_IN].Init(this, 0x81, 64);
    xfers_[CAN_XFER_DATA_OUT].Init(this, 0x02, 0);
    xfers_[CAN_XFER_DATA_IN].Init(this, 0x82, CAN_CACHE_SIZE);
    XDBG(XLOG_GENERAL, "---\n");
}

CanDev::~CanDev() {
    XDBG(XLOG_GENERAL, "+++\n");
    // VCI_CloseDevice closes first, to learn whether the transfers could be drained before it
    // frees anything: Close runs once per close.
    if (!closed_) Close();
    XDBG(XLOG_GENERAL, "---\n");
}

int CanDev::Init() {
    if (usbinit_) return 0;
    XDBG(XLOG_GENERAL, "+++\n");
    XDBG(XLOG_GENERAL, "libusb_init\n");
    int r = libusb_init(nullptr);
    if (r != 0) {
        XERR("libusb_init failed: ret=%d\n", r);
    } else {
        usbinit_ = true;
    }
    XDBG(XLOG_GENERAL, "---\n");
    return r;
}

void CanDev::Exit() {
    if (!usbinit_) return;
    XDBG(XLOG_GENERAL, "+++\n");
    XDBG(XLOG_GENERAL, "libusb_exit\n");
    libusb_exit(nullptr);
    usbinit_ = false;
    XDBG(XLOG_GENERAL, "---\n");
}

int CanDev::Scan(libusb_device** list, std::vector<libusb_device*>& out) {
    XDBG(XLOG_GENERAL, "+++\n");
    int result = -1;
    for (libusb_device** it = list; it && *it; ++it) {
        libusb_device_descriptor desc;
        int r = libusb_get_device_descriptor(*it, &desc);
        result = r;
        if (r != 0) {
            XERR("libusb_get_device_descriptor failed: ret=%d\n", r);
            break;
        }
        XDBG(XLOG_GENERAL, "vid=0x%04x, pid=0x%04x\n", desc.idVendor, desc.idProduct);
        if (desc.idVendor == CAN_VID && desc.idProduct == CAN_PID) out.push_back(*it);
    }
    XDBG(XLOG_GENERAL, "---\n");
    return result;
}

int CanDev::Open(U16 vid, U16 pid, U16 index) {
    XDBG(XLOG_GENERAL, "+++\n");
    (void)vid;
    (void)pid;
    libusb_device** list = nullptr;
    std::vector<libusb_device*> matches;
    int result = 0;
    openerr_ = VEXLO_OPEN_FAILED;
    do {
        if (handle_) {
            XWRN("device opened\n");
            result = 0;
            break;
        }
        // Without a libusb context every libusb call below would act on nothing; fail instead.
        if (!usbinit_) {
            XERR("libusb not initialised\n");
            result = LIBUSB_ERROR_OTHER;
            break;
        }
        for (int i = 0; i < 4; ++i) {
            if (!xfers_[i].GetXfer()) {
                XERR("no transfer record: ep=0x%02x\n", xfers_[i].ep_);
                result = LIBUSB_ERROR_NO_MEM;
                break;
            }
        }
        if (result != 0) break;
        ssize_t n = libusb_get_device_list(nullptr, &list);
        if (n < 0) {
            XERR("libusb_get_device_list failed: ret=%d\n", static_cast<int>(n));
            list = nullptr;
            result = static_cast<int>(n);
            break;
        }
        XDBG(XLOG_GENERAL, "libusb_get_device_list succeeded: ret=%d\n", static_cast<int>(n));
        Scan(list, matches);
        XDBG(XLOG_GENERAL, "found=%ld\n", static_cast<long>(matches.size()));
        if (index >= matches.size()) {
            XERR("invalid index: index=%d, found=%ld\n", index, static_cast<long>(matches.size()));
            result = -1;
            openerr_ = VEXLO_OPEN_MISSING;
            break;
        }
        int r = libusb_open(matches[index], &handle_);
        if (r < 0 || !handle_) {
            XERR("libusb_open failed: ret=%d\n", r);
            handle_ = nullptr;
            result = r < 0 ? r : -1;
            openerr_ = OpenReason(r);
            break;
        }
        XDBG(XLOG_GENERAL, "libusb_open succeeded: dev=%p\n", static_cast<void*>(handle_));
        r = libusb_claim_interface(handle_, 0);
        if (r < 0) {
            XERR("libusb_claim_interface failed: ret=%d\n", r);
            result = r;
            openerr_ = OpenReason(r);
            break;
        }
        XDBG(XLOG_GENERAL, "libusb_claim_interface succeeded\n");
        claimed_ = true;
        closing_ = false;
        closed_ = false;
        acks_.Reset();
        // Without its event thread the device could never complete a transfer: undo the open.
        if (!usbthread_.Start()) {
            XDBG(XLOG_GENERAL, "libusb_release_interface\n");
            libusb_release_interface(handle_, 0);
            claimed_ = false;
            result = -1;
            break;
        }
        result = 0;
    } while (false);
    if (result == 0) openerr_ = VEXLO_OPEN_OK;

    if (!claimed_ && handle_) {
        XDBG(XLOG_GENERAL, "libusb_close: dev=%p\n", static_cast<void*>(handle_));
        libusb_close(handle_);
        handle_ = nullptr;
    }
    if (list) {
        XDBG(XLOG_GENERAL, "libusb_free_device_list\n");
        libusb_free_device_list(list, 1);
    }
    XDBG(XLOG_GENERAL, "---\n");
    return result;
}

void CanDev::Close() {
    XDBG(XLOG_GENERAL, "+++\n");
    // Cancel under each transfer's lock after raising closing_: a completion being dispatched
    // right now either re-arms before the cancel (and is cancelled) or sees closing_ and stays idle.
    for (int i = 0; i < 4; ++i) {
        XLock guard(&xfers_[i]);
        closing_ = true;
        xfers_[i].Cancel();
    }
    // The records and this object are freed after Close: every cancellation must have been
    // delivered first. Events are pumped here too, so this works whether or not the event thread
    // (or another device's) is handling them.
    XTimer timer;
    while (AnyInFlight()) {
        timer.Stop();
        if (timer.msecs() > static_cast<unsigned long long>(kCloseDrainMs)) {
            XERR("transfers still in flight\n");
            break;
        }
        struct timeval tv = {0, 10000};
        libusb_handle_events_timeout_completed(nullptr, &tv, nullptr);
    }
    usbthread_.Stop(false);
    if (claimed_) {
        XDBG(XLOG_GENERAL, "libusb_release_interface\n");
        libusb_release_interface(handle_, 0);
        claimed_ = false;
    }
    if (handle_) {
        XDBG(XLOG_GENERAL, "libusb_close: dev=%p\n", static_cast<void*>(handle_));
        libusb_close(handle_);
        handle_ = nullptr;
    }
    closed_ = true;
    // Left readable rather than closed, so that a waiter in epoll wakes too (CanReady.h).
    if (index_ != kNoIndex) {
        for (CanReady& r : ready_) r.Retire(index_);
    }
    XDBG(XLOG_GENERAL, "---\n");
}

bool CanDev::AnyInFlight() {
    for (int i = 0; i < 4; ++i) {
        XLock guard(&xfers_[i]);
        if (xfers_[i].InFlight()) return true;
    }
    return false;
}

CanDev* CanDev::FindDevice(unsigned int index) {
    CanDev* dev = nullptr;
    // From inside the application's log function no device is found: every call that needs one
    // then fails at once, as for a device that is not open (XLogInside).
    if (XLogInside()) return nullptr;
    {
        XLock guard(&devlck_);
        auto it = devmap_.find(index);
        if (it != devmap_.end()) dev = it->second;
    }
    return dev;
}

void CanDev::AddDevice(unsigned int index, CanDev* dev) {
    CanReady::Reopened(index);
    dev->index_ = index;
    XLock guard(&devlck_);
    devmap_.insert(std::make_pair(index, dev));
}

void CanDev::Unplugged() {
    if (gone_.exchange(true)) return;
    for (CanReady& r : ready_) r.Gone();
}

void CanDev::DelDevice(unsigned int index) {
    XLock guard(&devlck_);
    devmap_.erase(index);
}
