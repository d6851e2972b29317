// Channel configuration, start and reset.
#include "VciCommon.h"

extern "C" VEXLO_API unsigned int VCI_InitCAN(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex,
                                              CAN_INIT* pInit) {
    CanDev* dev = CanDev::FindDevice(DevIndex);
    XDBG(XLOG_GENERAL, "+++ Type=%d, Card=%d, Port=%d, pInit=%p\n", DevType, DevIndex, CANIndex,
         static_cast<void*>(pInit));
    unsigned int result = 0;
    if (DevIndex > VCI_MAX_INDEX || CANIndex > 1 || !pInit) {
        XERR("invalid parameters\n");
    } else if (!dev) {
        XERR("device not opened\n");
    } else {
        XLock guard(&CanDev::cmdlck_);
        XDBG(XLOG_GENERAL, "ACC=0x%08x, ACM=0x%08x, AFM=0x%02x, T0=0x%02x, T1=0x%02x, LOM=0x%02x\n", pInit->AcceptCode,
             pInit->AcceptMask, pInit->FilterMode, pInit->BusTiming0, pInit->BusTiming1, pInit->ListenOnly);
        U8 ack[VCI_ACK_CAP];
        VciPacket timing = VciMakePacket(0x03, 0x04, 7);
        timing.bytes[4] = static_cast<U8>(CANIndex << 4 | (pInit->ListenOnly ? 0x80 : 0));
        timing.bytes[5] = pInit->BusTiming0;
        timing.bytes[6] = pInit->BusTiming1;
        if (VCI_EXCHANGE(dev, &timing, ack)) {
            VciPacket filter = VciMakePacket(0x04, 0x0A, 13);
            filter.bytes[4] = static_cast<U8>(CANIndex << 4 | (pInit->FilterMode ? 0x40 : 0));
            CanPutBe32(&filter.bytes[5], pInit->AcceptCode);
            CanPutBe32(&filter.bytes[9], pInit->AcceptMask);
            if (VCI_EXCHANGE(dev, &filter, ack)) result = 1;
        }
    }
    XDBG(XLOG_GENERAL, "--- ret=%d\n", result);
    return result;
}

// Start and reset differ only in their packet (code and length byte). The caller has checked its
// arguments and holds cmdlck_; "Cmd failed" and "Ack error" name the caller and its line.
static unsigned int VciChannelCommand(CanDev* dev, unsigned int CANIndex, U8 code, U8 lenbyte, const char* func,
                                      int line) {
    VciPacket pkt = VciMakePacket(code, lenbyte, 5);
    pkt.bytes[4] = static_cast<U8>(CANIndex << 4);
    U8 ack[VCI_ACK_CAP];
    return VciExchange(func, line, dev, &pkt, ack) ? 1 : 0;
}

extern "C" VEXLO_API unsigned int VCI_StartCAN(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex) {
    CanDev* dev = CanDev::FindDevice(DevIndex);
    XDBG(XLOG_GENERAL, "+++ Type=%d, Card=%d, Port=%d\n", DevType, DevIndex, CANIndex);
    unsigned int result = 0;
    if (DevIndex > VCI_MAX_INDEX || CANIndex > 1) {
        XERR("invalid parameters\n");
    } else if (!dev) {
        XERR("device not opened\n");
    } else {
        XLock guard(&CanDev::cmdlck_);
        result = VciChannelCommand(dev, CANIndex, 0x0E, 0x02, __PRETTY_FUNCTION__, __LINE__);
    }
    XDBG(XLOG_GENERAL, "--- ret=%d\n", result);
    return result;
}

extern "C" VEXLO_API unsigned int VCI_ResetCAN(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex) {
    CanDev* dev = CanDev::FindDevice(DevIndex);
    XDBG(XLOG_GENERAL, "+++ Type=%d, Card=%d, Port=%d\n", DevType, DevIndex, CANIndex);
    unsigned int result = 0;
    if (DevIndex > VCI_MAX_INDEX || CANIndex > 1) {
        XERR("invalid parameters\n");
    } else if (!dev) {
        XERR("device not opened\n");
    } else {
        XLock guard(&CanDev::cmdlck_);
        // The reset packet carries 0x12 in its length byte, as the adapter expects.
        result = VciChannelCommand(dev, CANIndex, 0x0F, 0x12, __PRETTY_FUNCTION__, __LINE__);
    }
    XDBG(XLOG_GENERAL, "--- ret=%d\n", result);
    return result;
}
