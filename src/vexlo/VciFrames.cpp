// The frame interface: transmit, receive, count and discard.
#include <unistd.h>

#include <cstring>

#include "VciCommon.h"

// Frames per transmit packet, and how long each packet's acknowledgement may take.
static const U32 kSlice = 3;
static const U32 kSendTimeout = 2000;

extern "C" VEXLO_API unsigned int VCI_Transmit(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex,
                                               CAN_OBJ* pData, unsigned int Count) {
    CanDev* dev = CanDev::FindDevice(DevIndex);
    XDBG(XLOG_GENERAL, "+++ Type=%d, Card=%d, Port=%d, pData=%p, Count=%d\n", DevType, DevIndex, CANIndex,
         static_cast<void*>(pData), Count);
    unsigned int accepted = 0;
    if (DevIndex > VCI_MAX_INDEX || CANIndex > 1 || !pData || Count == 0) {
        XERR("invalid parameters\n");
    } else if (!dev) {
        XERR("device not opened\n");
    } else {
        XLock guard(&CanDev::cmdlck_);
        CAN_OBJX slice[kSlice];
        memset(slice, 0, sizeof(slice));
        unsigned int consumed = 0;
        while (consumed < Count) {
            U32 k = Count - consumed < kSlice ? Count - consumed : kSlice;
            for (U32 i = 0; i < k; ++i) {
                const CAN_OBJ& obj = pData[consumed + i];
                CanPack(&obj, CANIndex, &slice[i]);
                CAN_TRACE_FRAME(CANIndex, obj);
            }
            U32 n = k;
            if (dev->Send(slice, &n, kSendTimeout) != 0) {
                XERR("Send failed\n");
                break;
            }
            accepted += n;
            if (n != k) {
                XERR("request=%d, transferred=%d\n", k, n);
                break;
            }
            consumed += k;
        }
        CanCount(&dev->stats_[CANIndex].tx_frames, accepted);
    }
    XDBG(XLOG_GENERAL, "--- ret=%d\n", accepted);
    return accepted;
}

extern "C" VEXLO_API unsigned int VCI_Receive(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex,
                                              CAN_OBJ* pData, unsigned int Count, unsigned int WaitTime) {
    CanDev* dev = CanDev::FindDevice(DevIndex);
    XTimer timer;
    XDBG(XLOG_GENERAL | XLOG_RECV, "+++ Type=%d, Card=%d, Port=%d, pData=%p, Count=%d\n", DevType, DevIndex, CANIndex,
         static_cast<void*>(pData), Count);
    unsigned int result = 0;
    if (DevIndex > VCI_MAX_INDEX || CANIndex > 1 || !pData || Count == 0) {
        XERR("invalid parameters\n");
    } else if (!dev) {
        XERR("device not opened\n");
    } else {
        CanFifo* fifo = dev->GetFifo(static_cast<int>(CANIndex));
        for (;;) {
            timer.Stop();
            if (timer.msecs() > WaitTime) break;
            unsigned int got = 0;
            {
                XLock guard(&CanDev::fifolck_);
                while (got < Count && fifo->Pop(&pData[got])) {
                    CAN_TRACE_FRAME(CANIndex, pData[got]);
                    ++got;
                }
                dev->ready_[CANIndex].Taken(fifo);
            }
            if (got > 0) {
                result = got;
                break;
            }
            usleep(10000);
        }
    }
    XDBG(XLOG_GENERAL | XLOG_RECV, "--- ret=%d\n", result);
    return result;
}

extern "C" VEXLO_API unsigned int VCI_GetReceiveNum(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex) {
    CanDev* dev = CanDev::FindDevice(DevIndex);
    XDBG(XLOG_GENERAL, "+++ Type=%d, Card=%d, Port=%d\n", DevType, DevIndex, CANIndex);
    unsigned int result = 0;
    if (DevIndex > VCI_MAX_INDEX || CANIndex > 1) {
        XERR("invalid parameters\n");
    } else if (!dev) {
        XERR("device not opened\n");
    } else {
        XLock guard(&CanDev::fifolck_);
        result = dev->GetFifo(static_cast<int>(CANIndex))->Size();
    }
    XDBG(XLOG_GENERAL, "--- ret=%d\n", result);
    return result;
}

extern "C" VEXLO_API unsigned int VCI_ClearBuffer(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex) {
    CanDev* dev = CanDev::FindDevice(DevIndex);
    XDBG(XLOG_GENERAL, "+++ Type=%d, Card=%d, Port=%d\n", DevType, DevIndex, CANIndex);
    unsigned int result = 0;
    if (DevIndex > VCI_MAX_INDEX || CANIndex > 1) {
        XERR("invalid parameters\n");
    } else if (!dev) {
        XERR("device not opened\n");
    } else {
        XLock guard(&CanDev::fifolck_);
        CanFifo* fifo = dev->GetFifo(static_cast<int>(CANIndex));
        fifo->Clear();
        dev->ready_[CANIndex].Taken(fifo);
        result = 1;
    }
    XDBG(XLOG_GENERAL, "--- ret=%d\n", result);
    return result;
}
