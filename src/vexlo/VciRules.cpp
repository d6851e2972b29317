// Provisional: the adapter's rules behind the extension header (bit timing, acceptance filter,
// discovery, open errors), in their simplest correct-enough form until the real ones land.
#include <cstring>

#include "VciCommon.h"
#include "vexlo_ext.h"

extern "C" VEXLO_API int vexlo_rate_for_timing(unsigned char btr0, unsigned char btr1, unsigned int* bitrate,
                                               unsigned int* sample_permille) {
    if (!bitrate || !sample_permille) return 0;
    unsigned brp = (btr0 & 0x3F) + 1, t1 = (btr1 & 0x0F) + 1, t2 = ((btr1 >> 4) & 7) + 1;
    unsigned tq = 1 + t1 + t2;
    unsigned long long clocks = 2ull * brp * tq;
    *bitrate = static_cast<unsigned>((16000000ull + clocks / 2) / clocks);
    *sample_permille = (1000 * (1 + t1) + tq / 2) / tq;
    return 1;
}

extern "C" VEXLO_API int vexlo_timing_for_rate(unsigned int bitrate, unsigned char* btr0, unsigned char* btr1,
                                               unsigned int* below, unsigned int* above) {
    if (!btr0 || !btr1) return 0;
    static const struct { unsigned rate; U8 b0, b1; } usual[] = {
        {1000000, 0x00, 0x14}, {800000, 0x00, 0x16}, {500000, 0x00, 0x1C}, {250000, 0x01, 0x1C},
        {125000, 0x03, 0x1C},  {100000, 0x04, 0x1C}, {50000, 0x09, 0x1C},  {20000, 0x18, 0x1C},
        {10000, 0x31, 0x1C}};
    for (const auto& u : usual) {
        if (u.rate == bitrate) {
            *btr0 = u.b0;
            *btr1 = u.b1;
            return 1;
        }
    }
    if (below) *below = 0;
    if (above) *above = 0;
    return 0;
}

static bool VciFilterMatch(const VEXLO_FILTER& f, const CAN_OBJ& o) {
    bool m = (o.Id & f.mask) == (f.id & f.mask) && (f.extended < 0 || (f.extended != 0) == (o.ExtendedFrame != 0)) &&
             (f.remote < 0 || (f.remote != 0) == (o.RemoteFrame != 0));
    return f.inverse ? !m : m;
}

extern "C" VEXLO_API int vexlo_filter_pass(const VEXLO_FILTER* filters, unsigned int count, const CAN_OBJ* frame) {
    if (!frame || (count && !filters)) return -1;
    if (count == 0) return 1;
    for (unsigned i = 0; i < count; ++i) {
        if (VciFilterMatch(filters[i], *frame)) return 1;
    }
    return 0;
}

extern "C" VEXLO_API int vexlo_filter_fit(const VEXLO_FILTER* filters, unsigned int count, CAN_INIT* init) {
    if (!init || (count && !filters)) return -1;
    init->AcceptCode = 0;
    init->AcceptMask = 0xFFFFFFFFu;
    init->FilterMode = 1;
    return count == 0 ? 1 : 0;
}

extern "C" VEXLO_API int vexlo_count(void) {
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
    if (text) *text = "";
    return VEXLO_OPEN_OK;
}
