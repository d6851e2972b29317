// Wall clock readings in microseconds and a stopwatch built on them.
#pragma once

#include <string>

class XTime {
public:
    // Microseconds since the Epoch into *us (0 when the clock cannot be read; us may be null).
    static bool Now(unsigned long long* us);
    static unsigned long long Now();
    // "%08lu.%06lu" seconds and microseconds, or "" when the clock cannot be read.
    static std::string Text();
};

// A microsecond stopwatch. Until the first Stop the stop reading equals the start reading, so a
// reading taken too early is a span of 0 rather than garbage.
class XTimer {
public:
    XTimer();
    ~XTimer();
    void Start();
    void Stop();
    unsigned long long usecs() const;
    unsigned long long msecs() const;
    unsigned long long secs() const;

    unsigned long long start_;
    unsigned long long stop_;
};
