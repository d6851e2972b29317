// Captures the library's log lines in unit tests (which link the static core) through the log
// sink, and offers the patterns the lines are matched with.
#pragma once

#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "XLog.h"

class LogCapture {
public:
    LogCapture() {
        Text().clear();
        XLogSetSink(Sink);
    }
    ~LogCapture() { XLogSetSink(nullptr); }

    std::string Take() {
        std::lock_guard<std::mutex> g(Mutex());
        std::string s;
        s.swap(Text());
        return s;
    }

    static std::vector<std::string> Lines(const std::string& text) {
        std::vector<std::string> out;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);) out.push_back(line);
        return out;
    }

private:
    static std::string& Text() {
        static std::string text;
        return text;
    }
    static std::mutex& Mutex() {
        static std::mutex m;
        return m;
    }
    static void Sink(const char* text, size_t len) {
        std::lock_guard<std::mutex> g(Mutex());
        Text().append(text, len);
    }
};

// "<10 digits>.<6 digits>: vexlo: LEVEL: SIGNATURE<digits>: MESSAGE" for a present-day clock.
inline std::regex LogLine(const std::string& level, const std::string& signature, const std::string& message) {
    auto quote = [](const std::string& s) {
        static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
        return std::regex_replace(s, special, R"(\$&)");
    };
    return std::regex("[0-9]{10}\\.[0-9]{6}: vexlo: " + level + ": " + quote(signature) + "<[0-9]+>: " +
                      quote(message));
}
