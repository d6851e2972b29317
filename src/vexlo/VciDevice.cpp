// Opening and closing an adapter.
#include "VciCommon.h"
#include "vexlo_ext.h"

extern "C" VEXLO_API unsigned int VCI_OpenDevice(unsigned int DevType, unsigned int DevIndex, unsigned int Reserved) {
    (void)Reserved;
    // From inside the application's log function nothing is opened (XLogInside).
    if (XLogInside()) {
        CanDev::openerr_ = VEXLO_OPEN_FAILED;
        return 0;
    }
    CanDev* dev = CanDev::FindDevice(DevIndex);
    int init = CanDev::Init();
    XDBG(XLOG_GENERAL, "+++ Type=%d, Card=%d\n", DevType, DevIndex);
    unsigned int result = 0;
    CanDev::openerr_ = VEXLO_OPEN_OK;
    if (dev) {
        XWRN("device opened: Type=%d, Card=%d\n", DevType, DevIndex);
        result = 1;
    } else if (init != 0) {
        // Without a libusb context no adapter can be reached; CanDev::Init has said why.
        CanDev::openerr_ = VEXLO_OPEN_FAILED;
        XERR("Open(%04x:%04x, %d) failed\n", CAN_VID, CAN_PID, DevIndex);
    } else {
        dev = new CanDev();
        if (dev->Open(CAN_VID, CAN_PID, static_cast<U16>(DevIndex)) == 0) {
            XDBG(XLOG_GENERAL, "CanDev=%p\n", static_cast<void*>(dev));
            CanDev::AddDevice(DevIndex, dev);
            result = 1;
        } else {
            XERR("Open(%04x:%04x, %d) failed\n", CAN_VID, CAN_PID, DevIndex);
            delete dev;
        }
    }
    XDBG(XLOG_GENERAL, "--- ret=%d\n", result);
    return result;
}

extern "C" VEXLO_API unsigned int VCI_CloseDevice(unsigned int DevType, unsigned int DevIndex) {
    // A close waits for the device's event thread, which may be the one running the application's
    // log function: from inside that function nothing is closed (XLogInside).
    if (XLogInside()) return 0;
    XDBG(XLOG_GENERAL, "+++ Type=%d, Card=%d\n", DevType, DevIndex);
    CanDev* dev = CanDev::FindDevice(DevIndex);
    XDBG(XLOG_GENERAL, "CanDev=%p\n", static_cast<void*>(dev));
    if (dev) {
        unsigned int channels = DevType == 3 ? 1 : 2;
        for (unsigned int ch = 0; ch < channels; ++ch) VCI_ResetCAN(DevType, DevIndex, ch);
        CanDev::DelDevice(DevIndex);
        // Closed before it is destroyed: a transfer whose completion never came would be written
        // into freed memory, so such a device is left allocated (Close has reported it) rather
        // than freed under libusb's feet. The destructor does not close it again.
        dev->Close();
        if (!dev->AnyInFlight()) delete dev;
    }
    XDBG(XLOG_GENERAL, "---\n");
    return 1;
}
