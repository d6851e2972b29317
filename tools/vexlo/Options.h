// The command line of a subcommand: the options every subcommand shares, read from one table
// with getopt_long together with the subcommand's own.
#pragma once

#include <getopt.h>

#include <functional>
#include <string>
#include <vector>

namespace vexlo_tool {

// The options shared by every subcommand: -d DEV, -b RATE, --btr B0:B1, --listen-only, -v/--verbose,
// -h/--help, --version.
struct CommonOptions {
    unsigned dev = 0;
    unsigned char btr0 = 0x00, btr1 = 0x1C;  // 500 kbit/s
    bool listen_only = false;
    bool verbose = false;  // the library's own log lines are shown (ShowLibraryLines)
};
extern const char kCommonHelp[];

// One subcommand's own options: getopt short letters ("Lef:n:T:t:") and long options (ending in
// a zeroed entry, or null), and the function that takes each (the option's code and its value,
// null for none; false after complaining).
struct OwnOptions {
    const char* letters;
    const option* longs;
    std::function<bool(int code, const char* value)> take;
};

// Reads argv (argv[0] the subcommand's name) into *common and *operands, handing the subcommand's
// own options to own.take. Returns -1 to go on; otherwise the exit status: kExitOk after -h/--help
// (which prints usage followed by kCommonHelp) or --version, kExitUsage after a complaint.
int ParseCommandLine(int argc, char** argv, const char* usage, const OwnOptions& own, CommonOptions* common,
                     std::vector<std::string>* operands);

// A number option's value within [min, max] (whole: no fraction); false after complaining
// "bad value 'TEXT' for OPTION: a whole number from MIN to MAX".
bool TakeNumber(const char* option, const char* text, double min, double max, bool whole, double* value);

// Parses a channel number, 0 or 1; false after complaining.
bool ParseChannel(const std::string& text, unsigned* channel);

// The one operand of a subcommand (a channel, a file); false after complaining when there is not
// exactly one: "SUB needs WHAT" or "SUB takes one WHAT, not 'X'".
bool OneOperand(const std::vector<std::string>& operands, const char* sub, const char* what, std::string* operand);

}  // namespace vexlo_tool
