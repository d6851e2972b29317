// The subcommands of vexlo. Each takes the arguments from its name on (argv[0] is the name) and
// returns the exit status.
#pragma once

namespace vexlo_tool {

int RunList(int argc, char** argv);
int RunInfo(int argc, char** argv);
int RunDump(int argc, char** argv);
int RunSend(int argc, char** argv);
int RunGen(int argc, char** argv);
int RunPlay(int argc, char** argv);
int RunStat(int argc, char** argv);
int RunServe(int argc, char** argv);

}  // namespace vexlo_tool
