// vexlo-sim: runs a program against simulated adapters. The adapters live in this process; the
// program runs in a child process with the umockdev preload, which routes its USB calls here.
// This process has the preload linked in as well, so that the testbed can send the program's
// libusb the events of an unplug and a replug.
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "tool/SimFaultPlan.h"
#include "tool/SimOptions.h"
#include "tool/SimPreload.h"
#include "tool/SimTrace.h"
#include "usb/SimTestbed.h"

using namespace vexlo_sim;

namespace {
// Seconds a program has to end after a termination before its whole group is killed.
const int kGraceSeconds = 5;

void SetSignal(int sig, void (*handler)(int)) {
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    sigaction(sig, &sa, nullptr);
}

// The signals this process takes in turn on its main thread: a termination and the end of the
// program. They are blocked in every thread from the start (the testbed's threads inherit the
// mask), so none is lost to another thread or deferred by a sanitizer's handler machinery.
sigset_t Watched() {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) sigaddset(&set, sig);
    return set;
}

// Waits for the program to end. A termination (SIGTERM, SIGINT, SIGHUP) sent to vexlo-sim goes on
// to the program's process group, so that what the program started ends with it; the program
// then ends and lets the trace be written out. One that does not end in time is killed, with its
// group, and so is what it leaves behind. *terminated tells whether a termination was passed on.
int WaitForProgram(pid_t pid, const sigset_t& watched, bool* terminated) {
    int status = 0;
    bool ended = false;
    struct timespec deadline = {0, 0};
    for (;;) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) break;
        if (r < 0 && errno != EINTR) {
            std::perror("vexlo-sim: waitpid");
            return -1;
        }
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (ended && now.tv_sec >= deadline.tv_sec) kill(-pid, SIGKILL);
        struct timespec wait = {0, 200000000};  // the program's end is also looked for every 200 ms
        siginfo_t info;
        int sig = sigtimedwait(&watched, &info, &wait);
        if (sig == SIGTERM || sig == SIGINT || sig == SIGHUP) {
            kill(-pid, sig);
            if (!ended) deadline.tv_sec = now.tv_sec + kGraceSeconds;
            ended = true;
        }
    }
    if (ended) kill(-pid, SIGKILL);
    *terminated = ended;
    return status;
}
}  // namespace

int main(int argc, char** argv) {
    SimToolOptions opt;
    std::string error;
    if (!SimParseOptions(argc, argv, &opt, &error)) {
        std::fprintf(stderr, "vexlo-sim: %s\n\n%s", error.c_str(), SimUsage());
        return 2;
    }
    if (opt.version) {
        std::printf("vexlo-sim %s\n", VEXLO_VERSION);
        return 0;
    }
    if (opt.help) {
        std::fputs(SimUsage(), stdout);
        return 0;
    }
    const sigset_t watched = Watched();
    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &watched, &previous);
    SimTrace trace;  // outlives the testbed, whose engine feeds it
    SimTestbed bed(opt.adapters, opt.ids, true);
    if (!bed.Ok()) {
        std::fprintf(stderr, "vexlo-sim: cannot set up the simulated adapters\n");
        return 2;
    }
    if (!opt.trace.empty() && !trace.Open(opt.trace, &error)) {
        std::fprintf(stderr, "vexlo-sim: %s\n", error.c_str());
        return 2;
    }
    for (unsigned a = 0; a < bed.Count(); ++a) {
        bed.Adapter(a).SetCabled(!opt.uncabled);
        if (!opt.trace.empty())
            bed.Adapter(a).SetAnalyser([&trace, a](unsigned ch, const SimFrame& f, uint64_t end) {
                trace.Add(a, ch, f, end);
            });
    }
    for (const SimToolGenerator& g : opt.generators) bed.Adapter(g.adapter).StartGenerator(g.channel, g.cfg);
    SimFaultPlan plan(&bed, opt);

    // The child gets the preload ahead of whatever it already preloads.
    std::string preload = SimChildPreload(opt.program[0], std::getenv("LD_PRELOAD"));
    std::fflush(nullptr);
    SetSignal(SIGQUIT, SIG_IGN);
    SetSignal(SIGPIPE, SIG_IGN);  // a trace pipe that closes is reported, not fatal
    // On a terminal where vexlo-sim is in the foreground, the program's group takes the terminal:
    // it reads the keyboard and gets Ctrl-C itself, as if the shell had started it.
    const bool terminal = isatty(STDIN_FILENO) && tcgetpgrp(STDIN_FILENO) == getpgrp();
    SetSignal(SIGTTOU, SIG_IGN);
    const pid_t parent = getpid();
    pid_t pid = fork();
    if (pid < 0) {
        std::perror("vexlo-sim: fork");
        return 2;
    }
    if (pid == 0) {
        setpgid(0, 0);
        if (terminal) tcsetpgrp(STDIN_FILENO, getpgrp());
        // Killed outright, vexlo-sim takes the program with it.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(128 + SIGKILL);
        SetSignal(SIGQUIT, SIG_DFL);
        SetSignal(SIGPIPE, SIG_DFL);
        SetSignal(SIGTTOU, SIG_DFL);
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        setenv("LD_PRELOAD", preload.c_str(), 1);
        std::vector<char*> args;
        for (std::string& s : opt.program) args.push_back(&s[0]);
        args.push_back(nullptr);
        execvp(args[0], args.data());
        std::fprintf(stderr, "vexlo-sim: cannot run %s: %s\n", args[0], std::strerror(errno));
        _exit(127);
    }
    setpgid(pid, pid);  // also here: whichever of the two runs first
    if (terminal) tcsetpgrp(STDIN_FILENO, pid);
    plan.Start();
    bool terminated = false;
    int status = WaitForProgram(pid, watched, &terminated);
    if (status < 0) return 2;
    if (!terminated) plan.Ended();
    if (terminal) tcsetpgrp(STDIN_FILENO, getpgrp());
    plan.Stop();
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return 2;
}
