#include "XLog.h"

#include <pthread.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "XTime.h"
#include "vexlo_ext.h"

// The exported mask: 0 at load, so only warnings and errors are written.
extern "C" {
VEXLO_API unsigned int gdbg = 0;
}

extern "C" VEXLO_API unsigned int VCI_Debug(unsigned int mask) {
    // The raw packet dumps can flood a terminal; only a direct write of gdbg switches them on.
    unsigned int stored = mask & ~static_cast<unsigned int>(XLOG_DUMP);
    __atomic_store_n(&gdbg, stored, __ATOMIC_RELAXED);
    return stored;
}

static XLogSinkFn g_sink = XLogStdout;

// The application's function for log lines (vexlo_set_log) and its user pointer, read and
// written together under one lock, so that a line goes to the old setting or the new one, never
// to one function with the other's pointer. The lock is not held while the function runs: a line
// of another thread, or a new setting made from inside the function, never waits for it. (A
// constant initialiser: no constructor to order, no destructor to run before the last line.)
static pthread_mutex_t g_applock = PTHREAD_MUTEX_INITIALIZER;
static vexlo_log_fn g_appfn = nullptr;
static void* g_appuser = nullptr;

// Set while this thread runs the application's function.
static thread_local bool t_inside = false;

bool XLogInside() { return t_inside; }

static int XLogLevel(const char* text) {
    // The level word follows the first ": vexlo: " of the line.
    const char* at = strstr(text, ": vexlo: ");
    if (!at) return VEXLO_LOG_ERR;
    at += 9;
    if (!strncmp(at, "DBG", 3)) return VEXLO_LOG_DBG;
    if (!strncmp(at, "WRN", 3)) return VEXLO_LOG_WRN;
    return VEXLO_LOG_ERR;
}

static void XLogToApp(const char* text, size_t len) {
    // The lines of calls made from inside the application's function are not handed to it again:
    // a function that calls the library would otherwise call itself without end.
    if (t_inside) return;
    pthread_mutex_lock(&g_applock);
    const vexlo_log_fn fn = g_appfn;
    void* const user = g_appuser;
    pthread_mutex_unlock(&g_applock);
    if (!fn) {
        g_sink(text, len);
        return;
    }
    // Handed over whole, without the line end.
    std::string line(text, len && text[len - 1] == '\n' ? len - 1 : len);
    t_inside = true;
    fn(user, XLogLevel(line.c_str()), line.c_str());
    t_inside = false;
}

extern "C" VEXLO_API void vexlo_set_log(vexlo_log_fn fn, void* user) {
    pthread_mutex_lock(&g_applock);
    g_appfn = fn;
    g_appuser = fn ? user : nullptr;
    pthread_mutex_unlock(&g_applock);
}

void XLogStdout(const char* text, size_t len) {
    // One fwrite per line: the stream lock keeps lines of different threads whole.
    fwrite(text, 1, len, stdout);
}

void XLogSetSink(XLogSinkFn sink) { g_sink = sink ? sink : XLogStdout; }

// Formats the common prefix into `out` and returns its length.
static int XLogPrefix(char* out, size_t size, const char* level, const char* func, int line) {
    std::string stamp = XTime::Text();
    return snprintf(out, size, "%s: vexlo: %s: %s<%d>: ", stamp.c_str(), level, func, line);
}

void XLogWrite(const char* level, const char* func, int line, const char* fmt, ...) {
    char small[512];
    int head = XLogPrefix(small, sizeof(small), level, func, line);
    if (head < 0) return;
    va_list ap;
    va_start(ap, fmt);
    va_list ap2;
    va_copy(ap2, ap);
    int body = vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    if (body < 0) {
        va_end(ap2);
        return;
    }
    size_t total = static_cast<size_t>(head) + static_cast<size_t>(body);
    if (total < sizeof(small) && static_cast<size_t>(head) < sizeof(small)) {
        vsnprintf(small + head, sizeof(small) - head, fmt, ap2);
        va_end(ap2);
        XLogToApp(small, total);
        return;
    }
    // A long line (a long signature or message): format it again into a buffer that fits.
    std::string big(total + 1, '\0');
    XLogPrefix(&big[0], big.size(), level, func, line);
    vsnprintf(&big[head], big.size() - head, fmt, ap2);
    va_end(ap2);
    big.resize(total);
    XLogToApp(big.data(), big.size());
}

void XLogDump(const char* func, int line, const char* head, const U8* bytes, size_t n) {
    // Written as one piece, so no other thread's line can fall into the middle of a dump.
    std::string text(512 + 3 * n, '\0');
    int len = XLogPrefix(&text[0], text.size(), "DBG", func, line);
    if (len < 0) return;
    text.resize(static_cast<size_t>(len));
    text += head;
    static const char hex[] = "0123456789abcdef";
    for (size_t i = 0; i < n; ++i) {
        text += hex[bytes[i] >> 4];
        text += hex[bytes[i] & 0xF];
        text += ' ';
    }
    text += '\n';
    XLogToApp(text.data(), text.size());
}
