// A plain libusb host for the conformance tests: opens the adapter at a position, claims
// interface 0 and does synchronous bulk exchanges with libusb's own timeouts.
#pragma once

#include <libusb.h>

#include <cstdint>
#include <vector>

#include "model/SimWire.h"

namespace vexlo_sim {

class SimHost {
public:
    SimHost() = default;
    ~SimHost();

    // Opens the position-th 0471:1200 device of libusb's list; false if there is none.
    bool Open(unsigned position = 0);
    void Close();
    libusb_device_handle* handle() const { return h_; }

    // Bulk OUT with a timeout of a second; the libusb result.
    int Out(uint8_t ep, Bytes data);
    // One command and its answer; the answer is empty when none came.
    Bytes Cmd(const Bytes& cmd);

private:
    libusb_device_handle* h_ = nullptr;
};

// Number of 0471:1200 devices in libusb's list.
int SimCountAdapters();

Bytes SimCmd(uint8_t code, std::vector<uint8_t> tail = {});

}  // namespace vexlo_sim
