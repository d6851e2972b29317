// What the vexlo process itself looks after: its messages, its output, the library's log lines,
// the stop signals and the clocks.
#pragma once

#include <cstdint>

namespace vexlo_tool {

// Exit statuses of every subcommand.
enum { kExitOk = 0, kExitFail = 1, kExitUsage = 2 };

// Prepares the process: the library's log lines are taken (and dropped until ShowLibraryLines),
// a closed standard descriptor is held by a placeholder that fails every use (so that nothing
// else opens as it), a reader that goes away makes writes fail instead of killing the process, Ctrl-C and SIGTERM
// ask to stop (a second one ends the process at once), and standard output is buffered.
void SetUpProcess();

// From now on the library's own log lines go whole to standard error (-v): the command says in
// its own words why something failed, and the library's lines are for looking closer.
void ShowLibraryLines();

// Writes "vexlo: " + message + newline to standard error in one write, as each library line is,
// so that neither is ever cut into the other.
void Complain(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// The same without the "vexlo: " prefix.
void Say(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Flushes standard output; false, after saying "cannot write the output: REASON" (once), when it
// fails or a write failed before (a full disk, a closed descriptor, a reader that went away), or
// when the caller saw the reader go (reader_gone: a poll reported an error on the pipe).
bool FlushOut(bool reader_gone = false);

// A stop signal came: Stopping() is true and StopFd() turns readable, so that a poll() wakes.
bool Stopping();
int StopFd();

uint64_t MonoUs();

// The process is to end at once when the subcommand returns, without the library's clean-up (an
// unplugged adapter is left open: closing it would take seconds); EndingWithoutCleanup tells main.
void EndWithoutCleanup();
bool EndingWithoutCleanup();

}  // namespace vexlo_tool
