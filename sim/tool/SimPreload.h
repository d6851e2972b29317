// The LD_PRELOAD value for the program vexlo-sim runs: the umockdev preload, behind any sanitizer
// runtime that the program is linked with, since such a runtime must come first in the process.
#pragma once

#include <string>

namespace vexlo_sim {

// `program` as execvp would find it; `inherited` is the LD_PRELOAD vexlo-sim was given (or null).
std::string SimChildPreload(const std::string& program, const char* inherited);

}  // namespace vexlo_sim
