#include "XTime.h"

#include <sys/time.h>

#include <cstdio>

bool XTime::Now(unsigned long long* us) {
    struct timeval tv;
    bool ok = gettimeofday(&tv, nullptr) == 0;
    if (us) {
        *us = ok ? static_cast<unsigned long long>(tv.tv_sec) * 1000000ULL + static_cast<unsigned long long>(tv.tv_usec)
                 : 0;
    }
    return ok;
}

unsigned long long XTime::Now() {
    unsigned long long us = 0;
    Now(&us);
    return us;
}

std::string XTime::Text() {
    struct timeval tv;
    if (gettimeofday(&tv, nullptr) != 0) return std::string();
    char buf[256];
    snprintf(buf, sizeof(buf), "%08lu.%06lu", static_cast<unsigned long>(tv.tv_sec),
             static_cast<unsigned long>(tv.tv_usec));
    return std::string(buf);
}

XTimer::XTimer() : start_(0), stop_(0) { Start(); }

XTimer::~XTimer() {}

void XTimer::Start() {
    start_ = XTime::Now();
    stop_ = start_;
}

void XTimer::Stop() { stop_ = XTime::Now(); }

unsigned long long XTimer::usecs() const { return stop_ - start_; }

unsigned long long XTimer::msecs() const { return usecs() / 1000; }

unsigned long long XTimer::secs() const { return usecs() / 1000000; }
