// The library calls of a subcommand that wait for the adapter, made on a thread of their own.
//
// On an unplugged adapter the library fails such a call only after the call's whole wait (a
// transmit whose packet never completes waits 3 s), while the command is to say that the adapter
// was unplugged and end within a second. So the command's thread hands each such call over and
// waits for its end or for the unplug. A call left behind at an unplug ends with the process,
// which then ends at once, without the library's clean-up (EndWithoutCleanup): the call and what
// it captured stay valid until then, whatever the command's thread does meanwhile.
#pragma once

#include <functional>
#include <memory>

namespace vexlo_tool {

class XCaller {
public:
    XCaller();
    // Stops the thread once it is idle; a thread still in a call left behind is let go.
    ~XCaller();
    XCaller(const XCaller&) = delete;
    XCaller& operator=(const XCaller&) = delete;

    // Makes `call` on the thread (started on first use) and waits for it; its captures are the
    // thread's own from then on, so they are taken by value. Returns true with *result set once
    // the call has returned; false when `gone` (asked every 20 ms meanwhile) says the adapter is
    // gone first, or when a call left behind earlier has not returned yet.
    bool Run(const std::function<unsigned()>& call, const std::function<bool()>& gone, unsigned* result);

private:
    struct Shared;
    std::shared_ptr<Shared> shared_;  // held by the thread too
};

}  // namespace vexlo_tool
