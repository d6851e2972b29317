// The subcommands of vexlo. Each takes the arguments after its name and returns the exit status.
#pragma once

#include <string>

#include "Adapter.h"

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

// One option of a subcommand that opens an adapter, taken as they all take it: the common options
// (then kOptionTaken), -h/--help and --version (then the exit status), a bad common option's value
// (kExitUsage); kOptionOwn leaves the option to the subcommand.
enum { kOptionTaken = -1, kOptionOwn = -2 };
int TakeSharedOption(const std::string& option, XArgs* args, CommonOptions* common, const char* usage);

// Takes the next operand into *slot; false, with "SUB takes one WHAT", when *slot is already set.
bool TakeOneOperand(XArgs* args, std::string* slot, const char* sub, const char* what);

}  // namespace vexlo_tool
