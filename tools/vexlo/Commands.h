// The subcommands of vexlo. Each takes the arguments after its name and returns the exit status.
#pragma once

namespace vexlo_tool {

int RunList(int argc, char** argv);
int RunInfo(int argc, char** argv);
int RunDump(int argc, char** argv);
int RunSend(int argc, char** argv);
int RunGen(int argc, char** argv);
int RunPlay(int argc, char** argv);
int RunStat(int argc, char** argv);

// -h/--help prints the usage, --version the version: the exit status, or -1 for another option.
int HelpOrVersion(const char* option, const char* usage);
void PrintVersion();

}  // namespace vexlo_tool
