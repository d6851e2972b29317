#include "Process.h"

#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "vexlo_ext.h"

namespace vexlo_tool {
namespace {

volatile sig_atomic_t g_stop = 0;
int g_stop_pipe[2] = {-1, -1};
bool g_out_failed = false;
bool g_no_cleanup = false;
std::atomic<bool> g_library_lines{false};

void OnStopSignal(int sig) {
    // The first signal asks the command to finish; a second one ends it without waiting.
    if (g_stop) _exit(128 + sig);
    g_stop = 1;
    char c = 1;
    ssize_t r = write(g_stop_pipe[1], &c, 1);
    (void)r;
}

// Each line whole in one write, from whichever thread the library writes it on; none without -v.
void LibraryLine(void*, int, const char* line) {
    if (!g_library_lines.load(std::memory_order_relaxed)) return;
    std::string text = line;
    text.push_back('\n');
    ssize_t r = write(2, text.data(), text.size());
    (void)r;
}

void WriteLine(const char* prefix, const char* fmt, va_list ap) {
    char text[1024];
    int n = std::snprintf(text, sizeof(text), "%s", prefix);
    n += std::vsnprintf(text + n, sizeof(text) - static_cast<size_t>(n) - 1, fmt, ap);
    if (n > static_cast<int>(sizeof(text)) - 2) n = static_cast<int>(sizeof(text)) - 2;
    text[n++] = '\n';
    ssize_t r = write(2, text, static_cast<size_t>(n));
    (void)r;
}

}  // namespace

void SetUpProcess() {
    vexlo_set_log(LibraryLine, nullptr);
    // A closed standard input or output gets /dev/null opened the wrong way round in its place:
    // every read or write then fails with a clear error, and no file the command opens takes its
    // number (a log file opened as descriptor 1 would receive the frames printed).
    for (int fd = 0; fd < 3; ++fd) {
        if (fcntl(fd, F_GETFD) < 0 && errno == EBADF) {
            int held = open("/dev/null", fd == 0 ? O_WRONLY : O_RDONLY);
            if (held >= 0 && held != fd) {
                dup2(held, fd);
                close(held);
            }
        }
    }
    if (g_stop_pipe[0] < 0 && pipe2(g_stop_pipe, O_CLOEXEC | O_NONBLOCK) != 0) g_stop_pipe[0] = g_stop_pipe[1] = -1;
    struct sigaction sa;
    std::memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnStopSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
    if (isatty(1)) setvbuf(stdout, nullptr, _IOLBF, 0);
    else setvbuf(stdout, nullptr, _IOFBF, 1 << 16);
}

void ShowLibraryLines() { g_library_lines = true; }

void Complain(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    WriteLine("vexlo: ", fmt, ap);
    va_end(ap);
}

void Say(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    WriteLine("", fmt, ap);
    va_end(ap);
}

bool FlushOut(bool reader_gone) {
    if (g_out_failed) return false;
    errno = reader_gone ? EPIPE : 0;
    if (std::fflush(stdout) == 0 && !std::ferror(stdout) && !reader_gone) return true;
    g_out_failed = true;
    Complain("cannot write the output: %s", std::strerror(errno ? errno : EIO));
    return false;
}

void EndWithoutCleanup() { g_no_cleanup = true; }
bool EndingWithoutCleanup() { return g_no_cleanup; }

bool Stopping() { return g_stop != 0; }
int StopFd() { return g_stop_pipe[0]; }

uint64_t MonoUs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000 + static_cast<uint64_t>(ts.tv_nsec) / 1000;
}

}  // namespace vexlo_tool
