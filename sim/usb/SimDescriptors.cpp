#include "usb/SimDescriptors.h"

namespace vexlo_sim {

std::vector<uint8_t> SimDescriptorBlob() {
    std::vector<uint8_t> d = {
        // device: USB 2.0, vendor class, EP0 64 bytes, 0471:1200, release 1.00, no strings
        18, 0x01, 0x00, 0x02, 0xFF, 0x00, 0x00, 64,
        static_cast<uint8_t>(kVendorId), static_cast<uint8_t>(kVendorId >> 8),
        static_cast<uint8_t>(kProductId), static_cast<uint8_t>(kProductId >> 8),
        0x00, 0x01, 0, 0, 0, 1,
        // configuration 1: total 46 bytes, one interface, bus powered, 100 mA
        9, 0x02, 46, 0, 1, 1, 0, 0x80, 50,
        // interface 0, four endpoints, vendor class
        9, 0x04, 0, 0, 4, 0xFF, 0x00, 0x00, 0,
    };
    const uint8_t eps[] = {0x01, 0x81, 0x02, 0x82};
    for (uint8_t ep : eps) {
        const uint8_t e[] = {7, 0x05, ep, 0x02, 64, 0, 0};
        d.insert(d.end(), e, e + sizeof e);
    }
    return d;
}

}  // namespace vexlo_sim
