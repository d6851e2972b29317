// ctest kills a test program that runs past its time limit and shows nothing of where it stood.
// Linked into every simulator test program, this watchdog prints the stack of every thread with
// gdb shortly before that limit, on standard error (which the tests never capture), and lets the
// program go on to be killed as before.
//
// VEXLO_WATCHDOG_SECONDS sets the delay (default 45, under ctest's 60); 0 turns it off, as for runs
// under valgrind, which are slower by far.
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

void DumpStacks(unsigned seconds) {
    fprintf(stderr, "\nwatchdog: still running after %u s; the stacks of all threads follow\n", seconds);
    fflush(stderr);
    char cmd[256];
    snprintf(cmd, sizeof cmd,
             "gdb -p %d -batch -nx -ex 'set pagination off' -ex 'thread apply all bt' </dev/null 1>&2",
             static_cast<int>(getpid()));
    if (system(cmd) != 0) fprintf(stderr, "watchdog: gdb could not show the stacks\n");
}

struct SimWatchdog {
    SimWatchdog() {
        const char* env = getenv("VEXLO_WATCHDOG_SECONDS");
        long seconds = env ? strtol(env, nullptr, 10) : 45;
        if (seconds <= 0) return;
        // Where the kernel restricts tracing to ancestors, allow the child gdb to attach.
        prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
        // Started before main, so before any testbed changes the environment: the thread only
        // sleeps until then.
        std::thread([seconds] {
            sleep(static_cast<unsigned>(seconds));
            DumpStacks(static_cast<unsigned>(seconds));
        }).detach();
    }
};

SimWatchdog watchdog;

}  // namespace
