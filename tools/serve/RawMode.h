// Raw mode of the socketcand protocol: every frame of the bus goes to the client.
#pragma once

#include <cstdint>

#include "Loop.h"
#include "vexlo_ext.h"

namespace vexlo_serve {

class XConnection;

class XRawMode {
public:
    // The client's "< ok >" to rawmode has just been queued. Frames are kept back for a moment:
    // clients read that answer with one read and fail when a frame arrives glued to it.
    void Enter(XConnection* c);
    void Leave(XConnection* c);
    void OnFrames(XConnection* c, const VEXLO_FRAME* frames, unsigned count);
    bool active() const { return active_; }

private:
    bool active_ = false;
    XTimer release_;  // lets the kept frames go
};

}  // namespace vexlo_serve
