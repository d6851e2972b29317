// Controller register access and the channel status snapshot.
#include "VciCommon.h"

// A register read (0x0D: the value comes back in byte 4 of the answer, replacing the address in
// byte 0 of pData) or write (0x0C: address and value from bytes 0 and 1). The caller has checked
// its arguments and holds cmdlck_; "Cmd failed" and "Ack error" name the caller and its line.
static unsigned int VciReference(bool write, CanDev* dev, unsigned int CANIndex, U8* data, const char* func,
                                 int line) {
    VciPacket pkt = write ? VciMakePacket(0x0C, 0x04, 7) : VciMakePacket(0x0D, 0x03, 6);
    pkt.bytes[4] = static_cast<U8>(CANIndex << 4);
    pkt.bytes[5] = data[0];
    if (write) pkt.bytes[6] = data[1];
    U8 ack[VCI_ACK_CAP];
    if (!VciExchange(func, line, dev, &pkt, ack)) return 0;
    if (!write) data[0] = ack[4];
    return 1;
}

extern "C" VEXLO_API unsigned int VCI_GetReference(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex,
                                                   unsigned int RefType, void* pData) {
    CanDev* dev = CanDev::FindDevice(DevIndex);
    XDBG(XLOG_GENERAL, "+++ Type=%d, Card=%d, Port=%d\n", DevType, DevIndex, CANIndex);
    unsigned int result = 0;
    if (DevIndex > VCI_MAX_INDEX || CANIndex > 1 || RefType != 1 || !pData) {
        XERR("invalid parameters\n");
    } else if (!dev) {
        XERR("device not opened\n");
    } else {
        XLock guard(&CanDev::cmdlck_);
        result = VciReference(false, dev, CANIndex, static_cast<U8*>(pData), __PRETTY_FUNCTION__, __LINE__);
    }
    XDBG(XLOG_GENERAL, "--- ret=%d\n", result);
    return result;
}

extern "C" VEXLO_API unsigned int VCI_SetReference(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex,
                                                   unsigned int RefType, void* pData) {
    CanDev* dev = CanDev::FindDevice(DevIndex);
    XDBG(XLOG_GENERAL, "+++ Type=%d, Card=%d, Port=%d\n", DevType, DevIndex, CANIndex);
    unsigned int result = 0;
    if (DevIndex > VCI_MAX_INDEX || CANIndex > 1 || RefType != 1 || !pData) {
        XERR("invalid parameters\n");
    } else if (!dev) {
        XERR("device not opened\n");
    } else {
        XLock guard(&CanDev::cmdlck_);
        result = VciReference(true, dev, CANIndex, static_cast<U8*>(pData), __PRETTY_FUNCTION__, __LINE__);
    }
    XDBG(XLOG_GENERAL, "--- ret=%d\n", result);
    return result;
}

extern "C" VEXLO_API unsigned int VCI_ReadCANStatus(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex,
                                                    CAN_STAT* pStatus) {
    CanDev* dev = CanDev::FindDevice(DevIndex);
    XDBG(XLOG_GENERAL, "+++ Type=%d, Card=%d, Port=%d\n", DevType, DevIndex, CANIndex);
    unsigned int result = 0;
    if (DevIndex > VCI_MAX_INDEX || CANIndex > 1 || !pStatus) {
        XERR("invalid parameters\n");
    } else if (!dev) {
        XERR("device not opened\n");
    } else {
        pStatus->Reserved0 = 0;
        // Each read takes cmdlck_ itself, so the lock is taken only after them. A field whose
        // read fails keeps its register address.
        struct {
            unsigned char* field;
            U8 reg;
        } regs[7] = {{&pStatus->RegMode, 0x00},         {&pStatus->RegArbLost, 0x0B},    {&pStatus->RegErrCode, 0x0C},
                     {&pStatus->RegErrWarnLimit, 0x0D}, {&pStatus->RegRxErrCount, 0x0E}, {&pStatus->RegTxErrCount, 0x0F},
                     {&pStatus->RegStatus, 0x02}};
        for (auto& r : regs) {
            *r.field = r.reg;
            VCI_GetReference(DevType, DevIndex, CANIndex, 1, r.field);
        }
        XLock guard(&CanDev::cmdlck_);
        VciPacket pkt = VciMakePacket(0x06, 0x02, 5);
        pkt.bytes[4] = static_cast<U8>(CANIndex << 4);
        U8 ack[VCI_ACK_CAP];
        if (VCI_EXCHANGE(dev, &pkt, ack)) {
            U32 a = CanGetLe32(&ack[5]);
            U32 b = CanGetLe32(&ack[9]);
            U32 sum = a + b;
            pStatus->CounterPercent = sum == 0 ? 0 : (a * 100u) / sum;
            result = 1;
        }
    }
    XDBG(XLOG_GENERAL, "--- ret=%d\n", result);
    return result;
}
