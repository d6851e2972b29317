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

struct SimToolOptions {
    unsigned adapters = 1;
    std::vector<SimIdentity> ids;  // one per adapter
    std::vector<SimToolGenerator> generators;
    bool uncabled = false;
    bool help = false;
    bool version = false;
    std::vector<std::string> program;  // program and its arguments
};

// Parses argv; false with a message in *error on a bad command line.
bool SimParseOptions(int argc, char** argv, SimToolOptions* out, std::string* error);
const char* SimUsage();

}  // namespace vexlo_sim
