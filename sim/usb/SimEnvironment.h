// Process set-up that the emulation needs before anything else runs: a per-run TMPDIR (crashed
// runs leave umockdev directories behind), a fine timer slack (the preload sleeps briefly after
// every emulated call), and the check that the umockdev preload is in place, without which libusb
// silently sees the real /sys and finds no adapter.
#pragma once

namespace vexlo_sim {

class SimEnvironment {
public:
    // True when the preload is active (call after the umockdev testbed exists). Otherwise prints how to fix it on stderr and returns false.
    static bool Check();
    // Points TMPDIR at a fresh directory removed at exit (once per process) and sets the timer
    // slack to 1 ns. Call before any thread starts; SimTestbed does it.
    static void Prepare();
};

}  // namespace vexlo_sim
