// vexlo-sim: runs a program against simulated adapters. The adapters live in this process; the
// program runs in a child process with the umockdev preload, which routes its USB calls here.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tool/SimOptions.h"
#include "tool/SimPreload.h"
#include "usb/SimTestbed.h"

using namespace vexlo_sim;

int main(int argc, char** argv) {
    SimToolOptions opt;
    std::string error;
    if (!SimParseOptions(argc, argv, &opt, &error)) {
        std::fprintf(stderr, "vexlo-sim: %s\n\n%s", error.c_str(), SimUsage());
        return 2;
    }
    if (opt.help) {
        std::fputs(SimUsage(), stdout);
        return 0;
    }
    SimTestbed bed(opt.adapters, opt.ids, false);
    if (!bed.Ok()) {
        std::fprintf(stderr, "vexlo-sim: cannot set up the simulated adapters\n");
        return 2;
    }
    for (unsigned a = 0; a < bed.Count(); ++a) bed.Adapter(a).SetCabled(!opt.uncabled);
    for (const SimToolGenerator& g : opt.generators) bed.Adapter(g.adapter).StartGenerator(g.channel, g.cfg);

    // The child gets the preload ahead of whatever it already preloads.
    std::string preload = SimChildPreload(opt.program[0], std::getenv("LD_PRELOAD"));
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) {
        std::perror("vexlo-sim: fork");
        return 2;
    }
    if (pid == 0) {
        setenv("LD_PRELOAD", preload.c_str(), 1);
        std::vector<char*> args;
        for (std::string& s : opt.program) args.push_back(&s[0]);
        args.push_back(nullptr);
        execvp(args[0], args.data());
        std::fprintf(stderr, "vexlo-sim: cannot run %s: %s\n", args[0], std::strerror(errno));
        _exit(127);
    }
    // Signals meant for the program reach it through the terminal's process group; pass on
    // a termination sent to us alone.
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            std::perror("vexlo-sim: waitpid");
            return 2;
        }
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return 2;
}
