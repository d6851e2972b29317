// vexlo: list, watch, log, send and replay CAN traffic through the adapter, in the formats of
// the Linux CAN tools (candump, cansend, cangen, canplayer).
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "Adapter.h"
#include "Commands.h"
#include "Serve.h"

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
                             {"serve", [](int argc, char** argv) { return RunServe(argc, argv, Out()); }}};

}  // namespace

namespace vexlo_tool {

void PrintVersion() { std::fprintf(Out(), "vexlo %s\n", vexlo_version()); }

int HelpOrVersion(const char* option, const char* usage) {
    if (!std::strcmp(option, "-h") || !std::strcmp(option, "--help")) {
        std::fputs(usage, Out());
        return kExitOk;
    }
    if (!std::strcmp(option, "--version")) {
        PrintVersion();
        return kExitOk;
    }
    return -1;
}

int TakeSharedOption(const std::string& option, XArgs* args, CommonOptions* common, const char* usage) {
    int taken = TakeCommonOption(option, args, common);
    if (taken < 0) return kExitUsage;
    if (taken > 0) return kOptionTaken;
    int help = HelpOrVersion(option.c_str(), (std::string(usage) + kCommonHelp).c_str());
    return help >= 0 ? help : kOptionOwn;
}

bool TakeOneOperand(XArgs* args, std::string* slot, const char* sub, const char* what) {
    std::string operand = args->Operand();
    if (!slot->empty()) {
        Complain("%s takes one %s, not '%s'", sub, what, operand.c_str());
        return false;
    }
    *slot = operand;
    return true;
}

}  // namespace vexlo_tool

int main(int argc, char** argv) {
    // The library writes its warnings and errors to standard output. The command keeps standard
    // output for its own lines and sends the library's to standard error.
    int fd = dup(1);
    FILE* out = fd >= 0 ? fdopen(fd, "w") : nullptr;
    if (out) {
        if (isatty(fd)) setvbuf(out, nullptr, _IOLBF, 0);
        else setvbuf(out, nullptr, _IOFBF, 1 << 16);
        dup2(2, 1);
        SetOut(out);
    }
    InstallStopSignals();
    int status = kExitUsage;
    if (argc < 2) {
        std::fputs(kUsage, stderr);
    } else if (HelpOrVersion(argv[1], kUsage) >= 0) {
        status = kExitOk;
    } else {
        bool found = false;
        for (const Command& c : kCommands) {
            if (std::strcmp(argv[1], c.name) == 0) {
                status = c.run(argc - 2, argv + 2);
                found = true;
            }
        }
        if (!found) {
            Complain("unknown command '%s'", argv[1]);
            std::fputs(kUsage, stderr);
        }
    }
    if (std::fflush(Out()) != 0 && status == kExitOk) {
        Complain("cannot write the output: %s", std::strerror(errno));
        status = kExitFail;
    }
    return status;
}
