// vexlo: list, watch, log, send and replay CAN traffic through the adapter, in the formats of
// the Linux CAN tools (candump, cansend, cangen, canplayer).
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "Commands.h"
#include "Process.h"
#include "vexlo_ext.h"

using namespace vexlo_tool;

namespace {

const char kUsage[] =
    "usage: vexlo COMMAND [OPTIONS] [ARGS]\n"
    "\n"
    "commands:\n"
    "  list                    the adapters found\n"
    "  info [-d DEV]           an adapter's board information and channel status\n"
    "  dump [OPTIONS] CH[,CH]  print (and log) received frames\n"
    "  send [OPTIONS] CH FRAME...  send frames such as 123#DEADBEEF\n"
    "  gen [OPTIONS] CH        generate frames\n"
    "  play [OPTIONS] FILE     replay a candump log\n"
    "  stat [OPTIONS] CH       a channel's controller status and counters\n"
    "  serve [OPTIONS]         share the adapter over the network (socketcand protocol)\n"
    "\n"
    "'vexlo COMMAND --help' describes a command's options. --version prints the version.\n";

struct Command {
    const char* name;
    int (*run)(int, char**);
};
const Command kCommands[] = {{"list", RunList}, {"info", RunInfo}, {"dump", RunDump}, {"send", RunSend},
                             {"gen", RunGen},   {"play", RunPlay}, {"stat", RunStat},
                             {"serve", RunServe}};

int Dispatch(int argc, char** argv) {
    if (argc < 2) {
        std::fputs(kUsage, stderr);
        return kExitUsage;
    }
    if (!std::strcmp(argv[1], "-h") || !std::strcmp(argv[1], "--help")) {
        std::fputs(kUsage, stdout);
        return kExitOk;
    }
    if (!std::strcmp(argv[1], "--version")) {
        std::printf("vexlo %s\n", vexlo_version());
        return kExitOk;
    }
    for (const Command& c : kCommands)
        if (std::strcmp(argv[1], c.name) == 0) return c.run(argc - 1, argv + 1);
    Complain("unknown command '%s'", argv[1]);
    std::fputs(kUsage, stderr);
    return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
    SetUpProcess();
    int status = Dispatch(argc, argv);
    // A failure to write that a subcommand has not reported yet still fails the command.
    if (!FlushOut() && status == kExitOk) status = kExitFail;
    // The library's threads still serve an adapter left open: end before anything is torn down.
    if (EndingWithoutCleanup()) _exit(status);
    return status;
}
