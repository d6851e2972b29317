// One open adapter: its libusb handle and claimed interface, its event thread, its four bulk
// transfers, its two receive rings, its error records and its receive cache; plus the
// process-wide registry of open devices and the libusb default context they share.
//
// Lock order. devlck_, cmdlck_ and fifolck_ are never held together. Under cmdlck_ an exchange
// holds the OUT transfer's lock while it sends, taking the command IN transfer's lock inside it only
// to forget earlier answers; it waits for an earlier exchange's answer before it sends, and for its
// own after, under the command IN transfer's lock alone.
// The event threads take only transfer locks, one at a time, and never a static lock.
//
// Threads. Completions normally run on the event threads. Close, and an exchange that cancelled
// its OUT transfer, must see the cancellation delivered before they let go of the transfer, so
// they handle libusb events on the application's thread until it is (WaitDelivered, Close). libusb
// may then deliver any completion of any open device on that thread, reception included, while
// the thread holds cmdlck_ (an exchange) or no static lock (Close). The completions take only
// transfer locks, so this adds no lock cycle, and the other devices' reception goes on meanwhile.
#pragma once

#include <libusb.h>

#include <atomic>
#include <map>
#include <vector>

#include "CanAcks.h"
#include "CanClock.h"
#include "CanFifo.h"
#include "CanNotes.h"
#include "CanReady.h"
#include "CanStats.h"
#include "CanWire.h"
#include "CanXfer.h"
#include "utils.h"

enum : U16 {
    CAN_VID = 0x0471,
    CAN_PID = 0x1200,
};

// Indexes into CanDev::xfers_.
enum {
    CAN_XFER_CMD_OUT = 0,  // 0x01: command packets
    CAN_XFER_CMD_IN = 1,   // 0x81: acknowledgements of commands and of frame packets
    CAN_XFER_DATA_OUT = 2, // 0x02: frame packets
    CAN_XFER_DATA_IN = 3,  // 0x82: received frames and notices
};

class CanDev {
public:
    CanDev();
    ~CanDev();
    CanDev(const CanDev&) = delete;
    CanDev& operator=(const CanDev&) = delete;

    static int Init();
    static void Exit();
    int Scan(libusb_device** list, std::vector<libusb_device*>& out);
    int Open(U16 vid, U16 pid, U16 index);
    void Close();

    // One command exchange on 0x01/0x81 (caller holds cmdlck_).
    int Cmd(U8* cmd, U32 cmdlen, U8* ack, U32* acklen, U32 timeout);
    // One frame packet on 0x02, acknowledged on 0x81 (caller holds cmdlck_).
    int Send(CAN_OBJX* recs, U32* count, U32 timeout);
    // Gathers and decodes a completed data IN transfer (event handling only).
    void Recv(CanXfer* xfer);

    static CanDev* FindDevice(unsigned int index);
    static void AddDevice(unsigned int index, CanDev* dev);
    static void DelDevice(unsigned int index);

    libusb_device_handle* GetDev() { return handle_; }
    CanXfer* GetXfer(int i) { return &xfers_[i]; }
    CanFifo* GetFifo(int i) { return &fifo_[i]; }
    CAN_ERR* GetError(int i) { return &err_[i + 1]; }

    static void* UsbThread(bool* stop, void* arg);
    static void UsbXferCb(libusb_transfer* xfer);
    void UsbXferDone(CanXfer* xfer);

    // True while any of the four transfers is submitted and its completion not yet delivered.
    bool AnyInFlight();

    // A transfer found the adapter gone: raises gone_ and makes both descriptors readable.
    void Unplugged();

    libusb_device_handle* handle_;
    bool claimed_;
    XThread usbthread_;
    CanXfer xfers_[4];
    CanFifo fifo_[2];
    // Written by the reception path and copied-and-cleared by VCI_ReadErrInfo, each as one atomic
    // 8-byte operation; the alignment makes those operations lock-free.
    alignas(8) CAN_ERR err_[3];
    std::vector<U8> cache_;
    U32 cachelen_;
    // Per channel: counters and receive readiness (the extension calls); messages thrown away as
    // malformed or overflowing, for the whole device. Written without a lock (see CanStats.h).
    CanStats stats_[2];
    CanReady ready_[2];
    std::atomic<U64> badmsgs_;
    // Host time of received records (reception path only) and, per channel, the notices in order
    // among the frames, for vexlo_receive.
    CanClock clock_;
    CanNotes notes_[2];
    // Raised, never lowered, once a transfer completed with no device: the adapter was unplugged.
    std::atomic<bool> gone_;
    // The device index it is registered under (AddDevice); kNoIndex until then.
    enum : unsigned { kNoIndex = ~0u };
    unsigned index_;
    // Raised by Close before it cancels: no transfer of this device is armed again afterwards.
    // Set and tested under each transfer's lock together with its cancellation or submission.
    std::atomic<bool> closing_;
    // True once Close has run since the last Open: the destructor then does not run it again.
    bool closed_;
    // The answers on 0x81 and the exchanges that still wait for one (command IN transfer's lock).
    CanAcks acks_;

    static std::map<unsigned int, CanDev*> devmap_;
    static XLock devlck_;
    static XLock cmdlck_;
    static XLock fifolck_;
    static bool usbinit_;
    // Why this thread's last open failed: one of VEXLO_OPEN_* (vexlo_ext.h), set by Open and by
    // VCI_OpenDevice and read by vexlo_open_error.
    static thread_local int openerr_;

private:
    // The steps of every exchange on the command IN endpoint. PostOut locks `out`, forgets the
    // answers that came before (so only one to this packet counts), sends a copy of the caller's
    // `len` bytes, waits at most timeout + 1000 ms for the completion and returns the bytes sent
    // (0 when the transfer failed, timed out or could not be submitted), or -1 without sending
    // when `out` is still in flight from an exchange that gave up on it. EndOut cancels, waits
    // for the cancellation's delivery and unlocks. AwaitAck waits for the answer to an exchange
    // of `kind` (CanAcks) at most `timeout` ms, dropping late answers to earlier exchanges.
    // ClearToSend comes first: false when an earlier exchange of `kind` may still be answered
    // after a wait of `timeout` ms, and the exchange must not send. DropLate judges the answers
    // that came while no exchange waited; caller holds the command IN transfer's lock.
    int PostOut(CanXfer* out, const void* pkt, U32 len, U32 timeout);
    void EndOut(CanXfer* out, int posted, U32 timeout);
    void ForgetAcks();
    void DropLate();
    bool ClearToSend(int kind, U32 timeout);
    bool AwaitAck(int kind, U32 timeout, CanAcks::Ack* ack);
    // Submits transfer `xfer` unless the device is closing (false, nothing submitted); caller
    // holds the transfer's lock. `ret` gets libusb's result.
    bool Arm(CanXfer* xfer, int* ret);
    // Waits, pumping libusb events, until the transfer's completion has been delivered.
    void WaitDelivered(CanXfer* xfer, int ms);
};
