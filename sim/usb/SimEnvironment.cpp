#include "usb/SimEnvironment.h"

#include <ftw.h>
#include <sys/prctl.h>
#include <umockdev.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace vexlo_sim {
namespace {

std::string g_run_dir;

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
    remove(path);
    return 0;
}

void RemoveRunDir() {
    if (!g_run_dir.empty()) nftw(g_run_dir.c_str(), &RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}

}  // namespace

bool SimEnvironment::Check() {
    if (umockdev_in_mock_environment()) return true;
    std::fprintf(stderr,
                 "vexlo-sim: FATAL: the umockdev preload is not active, libusb would see the real "
                 "system.\nvexlo-sim: link with -Wl,--push-state,--no-as-needed "
                 "-lumockdev-preload -Wl,--pop-state (vexlo_sim_test does), or run under "
                 "vexlo-sim.\n");
    return false;
}

void SimEnvironment::Prepare() {
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    if (!g_run_dir.empty()) return;
    const char* base = std::getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/vexlo-sim-XXXXXX";
    if (!mkdtemp(&tmpl[0])) {
        std::perror("vexlo-sim: mkdtemp");
        return;
    }
    g_run_dir = tmpl;
    setenv("TMPDIR", g_run_dir.c_str(), 1);
    std::atexit(&RemoveRunDir);
}

}  // namespace vexlo_sim
