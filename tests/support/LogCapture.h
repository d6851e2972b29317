// Captures the library's log lines in unit tests (which link the static core) through the log
// sink.
#pragma once

#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "LogLine.h"
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
