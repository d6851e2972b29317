// What every subcommand of vexlo shares: the common options, the command's own output stream,
// the adapter's open / initialise / start / reset / close, and the stop signals.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "CanFilter.h"
#include "vexlo.h"
#include "vexlo_ext.h"

namespace vexlo_tool {

// Exit statuses of every subcommand.
enum { kExitOk = 0, kExitFail = 1, kExitUsage = 2 };

// The device type passed to every VCI_* call: two channels.
const unsigned kDevType = 4;

// The command's standard output. The library writes its own log lines to standard output; main
// moves them to standard error so that they never mix with frames (see main.cpp).
FILE* Out();
void SetOut(FILE* out);

// Prints "vexlo: " + message + newline to standard error.
void Complain(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// A small scanner of a subcommand's arguments: "-x VALUE", "-xVALUE", "--long VALUE", "--long=VALUE".
class XArgs {
public:
    XArgs(int argc, char** argv) : argc_(argc), argv_(argv) {}
    bool Done() const { return i_ >= argc_; }
    // The next argument if it is an option (and not "-" or a negative number), else empty.
    std::string Option();
    // The value of the option just read; false (with a complaint) when it is missing.
    bool Value(const std::string& option, std::string* value);
    // The next argument, which is not an option.
    std::string Operand() { return argv_[i_++]; }
    bool IsOption() const;

private:
    int argc_;
    char** argv_;
    int i_ = 0;
    std::string inline_;  // value glued to the option ("-n5", "--count=5")
    bool has_inline_ = false;
};

// The options shared by every subcommand that opens an adapter.
struct CommonOptions {
    unsigned dev = 0;
    unsigned char btr0 = 0x00, btr1 = 0x1C;  // 500 kbit/s
    bool listen_only = false;
};

// Takes one of -d DEV, -b RATE, --btr B0:B1, --listen-only. 1: taken; 0: not a common option;
// -1: taken but bad (complained).
int TakeCommonOption(const std::string& option, XArgs* args, CommonOptions* common);
extern const char kCommonHelp[];

// Parses a channel number, 0 or 1.
bool ParseChannel(const std::string& text, unsigned* channel);

// Ctrl-C and SIGTERM: raise a flag and make StopFd() readable, so that a poll() wakes.
void InstallStopSignals();
bool Stopping();
int StopFd();
// Sleeps until the given CLOCK_MONOTONIC time (microseconds) or a stop signal.
void SleepUntil(uint64_t mono_us);
uint64_t MonoUs();
uint64_t RealUs();

// How VCI_OpenDevice failed, from the library's log lines of the attempt.
enum class OpenFailure { kMissing, kBusy, kOther };
OpenFailure ClassifyOpenFailure(const std::string& library_lines);

// An open adapter. Open reports a busy or missing adapter in words; the destructor resets the
// channels it started and closes the adapter.
class XAdapter {
public:
    explicit XAdapter(const CommonOptions& common) : common_(common) {}
    ~XAdapter() { Close(); }
    // kExitOk, or kExitFail after printing "adapter DEV is in use by another program",
    // "no adapter at position DEV" or the library's own lines.
    int Open();
    // The same without a word: false with the reason in *why (and the library's lines).
    bool OpenQuietly(OpenFailure* why, std::string* lines = nullptr);
    // Initialises the channel with the common timing and the acceptance filter, then starts it.
    bool Start(unsigned channel, const AcceptanceFilter& filter = AcceptanceFilter());
    // True once the channel's transmit buffer is empty (status bit 2), false after a second.
    bool WaitSent(unsigned channel);
    void Close();
    unsigned dev() const { return common_.dev; }

    CommonOptions common_;
    bool open_ = false;
    bool started_[2] = {false, false};
};


}  // namespace vexlo_tool
