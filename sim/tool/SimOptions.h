// Command line of vexlo-sim: options, then "--", then the program to run and its arguments.
#pragma once

#include <string>
#include <vector>

#include "model/SimAdapter.h"
#include "model/SimGenerator.h"

namespace vexlo_sim {

struct SimToolGenerator {
    unsigned adapter = 0;
    unsigned channel = 0;
    SimGenConfig cfg;
};

// Unplug adapter `adapter` `at` seconds after the program starts; plug it back `back` seconds
// after the start (negative: never).
struct SimToolUnplug {
    unsigned adapter = 0;
    double at = 0;
    double back = -1;
};

// From `at` seconds after the program starts, adapter `adapter` answers every command `ms` late.
struct SimToolDelay {
    unsigned adapter = 0;
    unsigned ms = 0;
    double at = 0;
};

struct SimToolOptions {
    unsigned adapters = 1;
    std::vector<SimIdentity> ids;  // one per adapter
    std::vector<SimToolGenerator> generators;
    std::vector<SimToolUnplug> unplugs;
    std::vector<SimToolDelay> delays;
    bool uncabled = false;
    std::string trace;  // file for the bus trace, "-" for stderr; empty: no trace
    bool help = false;
    bool version = false;
    std::vector<std::string> program;  // program and its arguments
};

// Parses argv; false with a message in *error on a bad command line.
bool SimParseOptions(int argc, char** argv, SimToolOptions* out, std::string* error);
const char* SimUsage();

}  // namespace vexlo_sim
