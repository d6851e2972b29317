#include "RawMode.h"

#include "Connection.h"

namespace vexlo_serve {

namespace {
// How long frames wait after the rawmode answer: the client has read it well before then.
const uint64_t kAnswerAloneUs = 50000;
}  // namespace

void XRawMode::Enter(XConnection* c) {
    if (active_) return;
    active_ = true;
    c->Flush();
    c->Hold(true);
    release_.At(c->loop(), MonoUs() + kAnswerAloneUs, [c] {
        c->Hold(false);
        c->Flush();
    });
}

void XRawMode::Leave(XConnection* c) {
    if (!active_) return;
    active_ = false;
    if (release_.pending()) {
        release_.Cancel();
        c->Hold(false);
    }
}

void XRawMode::OnFrames(XConnection* c, const VEXLO_FRAME* frames, unsigned count) {
    for (unsigned i = 0; i < count; ++i) c->Emit(frames[i]);
}

}  // namespace vexlo_serve
