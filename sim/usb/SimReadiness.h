// Readiness of an emulated usbfs node for poll(). The host's event loop polls the node for
// POLLOUT and then reaps URBs; a regular file is always ready, so the loop would spin. The node is
// made a FIFO that is kept full (no POLLOUT) and one page is drained from it only while a
// completed URB waits to be reaped, so the loop blocks while the adapter has nothing to say.
#pragma once

#include <string>

namespace vexlo_sim {

class SimReadiness {
public:
    SimReadiness() = default;
    ~SimReadiness();
    SimReadiness(const SimReadiness&) = delete;
    SimReadiness& operator=(const SimReadiness&) = delete;

    // Replace the node at `path` by a full FIFO. False (with a message) on failure.
    bool Make(const std::string& path);
    // Ready: a page is free and poll() reports POLLOUT. Not ready: full again.
    void Set(bool ready);
    // Gives the FIFO up: nobody will poll the node any more.
    void Close();

private:
    void Fill();
    int fd_ = -1;
    bool ready_ = false;
};

}  // namespace vexlo_sim
