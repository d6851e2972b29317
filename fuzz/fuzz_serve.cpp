// Fuzz target of the server's command path: any bytes from a socketcand client, cut into commands
// and parsed as the connection does, each parsed frame written back as text. Checked: commands
// never exceed their limit, parsed frames and identifiers are within CAN's ranges, error texts
// cannot break the protocol's framing, and a frame's text fits its buffer.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Command.h"
#include "Text.h"

using namespace vexlo_serve;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    XCommandReader reader;
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        if (reader.Take(static_cast<char>(data[i]), &text) != XCommandReader::kCommand) continue;
        if (text.size() > XCommandReader::kMaxCommand) abort();
        XCommand cmd;
        std::string error;
        if (!ParseCommand(text, &cmd, &error)) {
            if (error.empty() || error.find_first_of("<>") != std::string::npos) abort();
            continue;
        }
        const CAN_OBJ& f = cmd.frame;
        if (f.DataLength > 8 || cmd.mask_len > 8 || cmd.bus.size() > 16) abort();
        if (cmd.id > (cmd.extended ? 0x1FFFFFFFu : 0x7FFu)) abort();
        if (cmd.bus.find_first_of("<> ") != std::string::npos) abort();
        VEXLO_FRAME ev;
        std::memset(&ev, 0, sizeof(ev));
        ev.frame = f;
        ev.host_us = cmd.interval_us;
        char out[kEventText + 1];
        out[kEventText] = 0x5A;
        size_t n = FormatEvent(ev, out);
        if (n >= kEventText || out[kEventText] != 0x5A) abort();
    }
    return 0;
}
