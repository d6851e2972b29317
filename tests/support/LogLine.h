// The pattern of one log line, "<10 digits>.<6 digits>: vexlo: LEVEL: SIGNATURE<digits>: MESSAGE"
// for a present-day clock, with signature and message taken literally.
#pragma once

#include <regex>
#include <string>

inline std::regex LogLine(const std::string& level, const std::string& signature, const std::string& message) {
    auto quote = [](const std::string& s) {
        static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
        return std::regex_replace(s, special, R"(\$&)");
    };
    return std::regex("[0-9]{10}\\.[0-9]{6}: vexlo: " + level + ": " + quote(signature) + "<[0-9]+>: " +
                      quote(message));
}
