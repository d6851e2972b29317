// Fuzz target of the serial-line CAN session: any bytes from a client, cut into writes of the
// length the input's first byte picks. Checked: every command (each CR of the input) gets exactly
// one reply, ended by CR or BEL, of at most 6 bytes on average (the longest, "V2131" and CR).
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "SlcanSession.h"

using namespace vexlo_tool;

namespace {

class XNullPort : public XSlcanPort {
public:
    CAN_INIT Config() override { return init_; }
    bool Configure(const CAN_INIT& init) override {
        init_ = init;
        return true;
    }
    SendResult Send(const CAN_OBJ&) override { return kSent; }
    bool SetOpen(bool) override { return true; }
    CAN_INIT init_{0, 0xFFFFFFFF, 0, 0, 0x00, 0x1C, 0};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    XNullPort port;
    XSlcanSession session(&port, {0x0210, 0x0318, "VXSIM0001"});
    const char* text = reinterpret_cast<const char*>(data);
    size_t step = size ? data[0] % 64 + 1 : 1, commands = 0;
    std::string out;
    for (size_t pos = 0; pos < size; pos += step) {
        size_t n = std::min(step, size - pos);
        session.Input(text + pos, n, &out);
        commands += static_cast<size_t>(std::count(text + pos, text + pos + n, '\r'));
    }
    size_t ends = static_cast<size_t>(std::count(out.begin(), out.end(), '\r') + std::count(out.begin(), out.end(), '\a'));
    if (ends != commands || session.waiting() || out.size() > 6 * commands) abort();
    return 0;
}
