// Error information: copy and clear a channel's (or the adapter's) latest notice.
#include "VciCommon.h"

extern "C" VEXLO_API unsigned int VCI_ReadErrInfo(unsigned int DevType, unsigned int DevIndex, unsigned int CANIndex,
                                                  CAN_ERR* pInfo) {
    CanDev* dev = CanDev::FindDevice(DevIndex);
    XDBG(XLOG_GENERAL, "+++ Type=%d, Card=%d, pInfo=%p\n", DevType, DevIndex, static_cast<void*>(pInfo));
    unsigned int result = 0;
    const int channel = static_cast<int>(CANIndex);
    if (DevIndex > VCI_MAX_INDEX || channel < -1 || channel > 1 || !pInfo) {
        XERR("invalid parameters\n");
    } else if (!dev) {
        XERR("device not opened\n");
    } else {
        XLock guard(&CanDev::cmdlck_);
        // One atomic exchange of the whole record against the reception path's atomic update:
        // the caller gets the record before a notice (which then stays) or with it, never a mix.
        *pInfo = CanErrTake(dev->GetError(channel));
        result = 1;
    }
    XDBG(XLOG_GENERAL, "--- ret=%d\n", result);
    return result;
}
