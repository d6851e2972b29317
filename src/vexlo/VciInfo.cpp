// Board information: five queries gathered into CAN_INFO.
#include <cstring>

#include "VciCommon.h"

// Copies a text answer: the low four bits of byte 2 count the bytes after byte 2, of which the
// first (byte 3) is not text. A count of 0 gives no valid length: the field gets an empty text.
static void VciCopyText(const U8* ack, char* field) {
    U32 n = ack[2] & 0x0F;
    U32 len = n > 0 ? n - 1 : 0;
    memcpy(field, ack + 4, len);
    field[len] = '\0';
}

extern "C" VEXLO_API unsigned int VCI_ReadBoardInfo(unsigned int DevType, unsigned int DevIndex, CAN_INFO* pInfo) {
    CanDev* dev = CanDev::FindDevice(DevIndex);
    XDBG(XLOG_GENERAL, "+++ Type=%d, Card=%d, pInfo=%p\n", DevType, DevIndex, static_cast<void*>(pInfo));
    unsigned int result = 0;
    if (DevIndex > VCI_MAX_INDEX || !pInfo) {
        XERR("invalid parameters\n");
    } else if (!dev) {
        XERR("device not opened\n");
    } else {
        XLock guard(&CanDev::cmdlck_);
        static const struct {
            const char* name;
            U8 code;
        } queries[5] = {{"HWV", 0x01}, {"FWV", 0x12}, {"CHN", 0x13}, {"SN", 0x14}, {"ID", 0x15}};
        U8 ack[VCI_ACK_CAP];
        int done = 0;
        for (; done < 5; ++done) {
            XDBG(XLOG_GENERAL, "> %s\n", queries[done].name);
            VciPacket pkt = VciMakePacket(queries[done].code, 0x01, 4);
            if (!VCI_EXCHANGE(dev, &pkt, ack)) break;
            // Each field is stored as soon as its answer is judged good.
            switch (done) {
            case 0: pInfo->HardwareVersion = static_cast<U16>(ack[4] | ack[5] << 8); break;
            case 1: pInfo->FirmwareVersion = static_cast<U16>(ack[4] | ack[5] << 8); break;
            case 2: pInfo->ChannelCount = ack[4]; break;
            case 3: VciCopyText(ack, pInfo->SerialNumber); break;
            default: VciCopyText(ack, pInfo->IdText); break;
            }
        }
        if (done == 5) {
            pInfo->DriverVersion = 0x0200;
            pInfo->ApiVersion = 0x0200;
            pInfo->IrqNumber = 0;
            XDBG(XLOG_GENERAL, "HWV=0x%04x, FWV=0x%04x, DRV=0x%04x, API=0x%04x, IRQ=0x%04x, CHN=0x%02x, SN=%s, ID=%s\n",
                 pInfo->HardwareVersion, pInfo->FirmwareVersion, pInfo->DriverVersion, pInfo->ApiVersion,
                 pInfo->IrqNumber, pInfo->ChannelCount, pInfo->SerialNumber, pInfo->IdText);
            result = 1;
        }
    }
    XDBG(XLOG_GENERAL, "--- ret=%d\n", result);
    return result;
}
