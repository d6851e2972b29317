// The adapter's rules behind the extension header: bit timing, acceptance filters, discovery and
// the reason of a failed open. The rules themselves are the pure pieces CanTiming and CanAccept.
#include "CanAccept.h"
#include "CanTiming.h"
#include "VciCommon.h"
#include "vexlo_ext.h"

extern "C" VEXLO_API int vexlo_timing_for_rate(unsigned int bitrate, unsigned char* btr0, unsigned char* btr1,
                                               unsigned int* below, unsigned int* above) {
    U8 b0 = 0, b1 = 0;
    U32 lo = 0, hi = 0;
    bool ok = CanTimingForRate(bitrate, &b0, &b1, &lo, &hi);
    if (ok) {
        if (btr0) *btr0 = b0;
        if (btr1) *btr1 = b1;
    }
    if (below) *below = ok ? 0 : lo;
    if (above) *above = ok ? 0 : hi;
    return ok && btr0 && btr1 ? 1 : 0;
}

extern "C" VEXLO_API int vexlo_rate_for_timing(unsigned char btr0, unsigned char btr1, unsigned int* bitrate,
                                               unsigned int* sample_permille) {
    if (!bitrate || !sample_permille) return 0;
    CanRateForTiming(btr0, btr1, bitrate, sample_permille);
    return 1;
}

extern "C" VEXLO_API int vexlo_filter_fit(const VEXLO_FILTER* filters, unsigned int count, CAN_INIT* init) {
    if (!init || !CanFiltersValid(filters, count)) return -1;
    CanAcceptSetting s;
    bool exact = CanAcceptFit(filters, count, &s);
    init->AcceptCode = s.code;
    init->AcceptMask = s.mask;
    init->FilterMode = s.single ? 1 : 0;
    return exact ? 1 : 0;
}

extern "C" VEXLO_API int vexlo_filter_pass(const VEXLO_FILTER* filters, unsigned int count, const CAN_OBJ* frame) {
    if (!frame || !CanFiltersValid(filters, count)) return -1;
    return CanFiltersPass(filters, count, *frame) ? 1 : 0;
}

// Counted from libusb's device list as the open counts positions, but without opening anything,
// so an adapter another program holds counts too.
extern "C" VEXLO_API int vexlo_count(void) {
    if (XLogInside()) return -1;
    if (CanDev::Init() != 0) return -1;
    libusb_device** list = nullptr;
    ssize_t n = libusb_get_device_list(nullptr, &list);
    if (n < 0) return -1;
    int found = 0;
    for (ssize_t i = 0; i < n; ++i) {
        libusb_device_descriptor d;
        if (libusb_get_device_descriptor(list[i], &d) == 0 && d.idVendor == CAN_VID && d.idProduct == CAN_PID) ++found;
    }
    libusb_free_device_list(list, 1);
    return found;
}

extern "C" VEXLO_API int vexlo_open_error(const char** text) {
    static const char* const kText[] = {
        "",
        "no adapter at this position",
        "in use by another program",
        "no permission to use the adapter (the udev rule 70-vexlo.rules gives it to the user at the seat and to "
        "the group plugdev)",
        "the adapter could not be opened",
    };
    int e = CanDev::openerr_;
    if (e < VEXLO_OPEN_OK || e > VEXLO_OPEN_FAILED) e = VEXLO_OPEN_FAILED;
    if (text) *text = kText[e];
    return e;
}
