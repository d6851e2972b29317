// vexlo send: frames in can-utils syntax (123#DEADBEEF) onto one channel.
#include <string>
#include <vector>

#include "Adapter.h"
#include "CanFrameText.h"
#include "Commands.h"
#include "Process.h"

namespace vexlo_tool {
namespace {

const char kUsage[] =
    "usage: vexlo send [OPTIONS] CH FRAME...\n"
    "\n"
    "Sends each FRAME on channel CH (0 or 1), in order. FRAME:\n"
    "  123#DEADBEEF        standard identifier (3 hex digits), 0 to 8 data bytes\n"
    "  12345678#11.22.33   extended identifier (8 hex digits); dots between bytes are allowed\n"
    "  123#R  123#R5       remote frame, with an optional length\n"
    "  123#                no data\n"
    "A malformed frame is refused (exit status 2) and then nothing is sent. Exit status 1 when the\n"
    "adapter did not take every frame, or they could not leave it within a second.\n"
    "\n";

}  // namespace

int RunSend(int argc, char** argv) {
    CommonOptions common;
    std::vector<std::string> operands;
    int status = ParseCommandLine(argc, argv, kUsage, {"", nullptr, nullptr}, &common, &operands);
    if (status >= 0) return status;
    if (common.listen_only) {
        Complain("send cannot send with --listen-only");
        return kExitUsage;
    }
    if (operands.size() < 2) {
        Complain("send needs a channel and at least one frame");
        return kExitUsage;
    }
    unsigned ch = 0;
    if (!ParseChannel(operands[0], &ch)) return kExitUsage;
    // Every frame is checked before the adapter is touched: all or nothing.
    std::vector<CAN_OBJ> frames(operands.size() - 1);
    for (size_t i = 1; i < operands.size(); ++i) {
        std::string error;
        if (!ParseFrame(operands[i], &frames[i - 1], &error)) {
            Complain("bad frame '%s': %s", operands[i].c_str(), error.c_str());
            return kExitUsage;
        }
    }
    XAdapter adapter(common);
    status = adapter.Open();
    if (status != kExitOk) return status;
    if (!adapter.Start(ch)) return kExitFail;
    // The adapter holds a few frames at a time: what it refuses is offered again as it sends.
    size_t sent = 0;
    for (unsigned n = 0; sent < frames.size(); sent += n)
        if (!adapter.Offer(ch, &frames[sent], static_cast<unsigned>(frames.size() - sent), &n)) break;
    if (sent < frames.size()) {
        if (!Stopping() && adapter.Present()) Complain("the adapter took %zu of %zu frames", sent, frames.size());
        return kExitFail;
    }
    if (!adapter.WaitSent(ch)) {
        if (adapter.Present())
            Complain("the frames did not leave the adapter within a second %s", kAckHint);
        return kExitFail;
    }
    return kExitOk;
}

}  // namespace vexlo_tool
