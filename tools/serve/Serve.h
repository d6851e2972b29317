// vexlo serve: the subcommand's entry point.
#pragma once

#include <cstdio>

namespace vexlo_tool {

// Takes the arguments after "serve"; the help and version go to `out`. Returns the exit status.
int RunServe(int argc, char** argv, FILE* out);

}  // namespace vexlo_tool
