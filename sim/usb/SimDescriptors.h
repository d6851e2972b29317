// USB identity of the adapter: the descriptors blob and sysfs attributes its device node carries.
#pragma once

#include <cstdint>
#include <vector>

namespace vexlo_sim {

constexpr uint16_t kVendorId = 0x0471;
constexpr uint16_t kProductId = 0x1200;

// Device descriptor (18 bytes), one configuration (9), interface 0 (9) and four bulk endpoints
// of 64-byte packets: 0x01 OUT, 0x81 IN, 0x02 OUT, 0x82 IN.
std::vector<uint8_t> SimDescriptorBlob();

}  // namespace vexlo_sim
