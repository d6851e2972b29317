// Numbers typed on the command line, each within the range that makes sense for it.
#pragma once

#include <string>

namespace vexlo_tool {

// Parses a plain decimal number: digits with an optional fraction ("12", "0.5", ".25"), nothing
// else (no sign, exponent, hex, "inf" or "nan", no spaces), from min to max inclusive; with whole,
// no fraction either. False with the accepted range in *error ("a whole number from 1 to 1000").
// Example: ("2.5", 0, 10, false) -> 2.5; ("-1", 1, 1000, true) -> false; ("1e300", ...) -> false.
bool ParseBounded(const std::string& text, double min, double max, bool whole, double* value, std::string* error);

}  // namespace vexlo_tool
