// What the benchmarks of the library against the simulated adapter share: the process's one
// testbed, opening adapter 0 with both channels started, the environment's settings (in a --short
// run, short defaults), the walk over the process's threads, and main.
// Each benchmark program is one source file that includes this once.
#pragma once

#include <benchmark/benchmark.h>
#include <dirent.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include "BenchShort.h"
#include "usb/SimTestbed.h"
#include "vexlo.h"

namespace vs = vexlo_sim;

static std::unique_ptr<vs::SimTestbed> g_bed;

// Calls fn(folder, command name, thread id) for every thread of this process, with its folder
// under /proc/self/task.
template <class Fn>
static inline void ForEachThread(Fn fn) {
    DIR* d = opendir("/proc/self/task");
    while (dirent* e = d ? readdir(d) : nullptr) {
        if (e->d_name[0] == '.') continue;
        std::string folder = std::string("/proc/self/task/") + e->d_name;
        std::string comm;
        std::getline(std::ifstream(folder + "/comm"), comm);
        fn(folder, comm, std::string(e->d_name));
    }
    if (d) closedir(d);
}

// A number from the environment, or `def` when the variable is not set.
static inline double EnvOr(const char* name, double def) {
    const char* v = getenv(name);
    return v ? atof(v) : def;
}

// Opens adapter 0 and starts both channels at 1 Mbit/s accepting every frame; false on a failure.
static inline bool OpenAndStart() {
    if (VCI_OpenDevice(4, 0, 0) != 1) return false;
    CAN_INIT init;
    memset(&init, 0, sizeof(init));
    init.AcceptMask = 0xFFFFFFFF;
    init.BusTiming1 = 0x14;
    for (unsigned ch = 0; ch < 2; ++ch) {
        if (VCI_InitCAN(4, 0, ch, &init) != 1 || VCI_StartCAN(4, 0, ch) != 1) return false;
    }
    return true;
}

// `add` registers the benchmarks whose settings depend on --short, when the options are known.
static inline int BenchMain(int argc, char** argv, void (*add)() = nullptr) {
    if (!BenchInit(&argc, argv)) return 1;
    if (add) add();
    // The testbed comes before libusb's default context, which lives as long as the process.
    g_bed.reset(new vs::SimTestbed(1));
    if (!g_bed->Ok()) return 1;
    benchmark::RunSpecifiedBenchmarks();
    g_bed.reset();  // before the process's exit handlers remove the testbed's directory
    return 0;
}
