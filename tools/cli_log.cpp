// The library's log lines, as the command sees them.
//
// The library logs through syslog(3) and nothing else.  This program defines
// syslog, vsyslog and their fortified forms (__syslog_chk, __vsyslog_chk) and
// exports them (tools/CMakeLists.txt): the dynamic linker looks in the
// executable first, so every call the libraries make lands here.  Each line
// is formatted once, kept for the error message of a failed call, copied to
// stderr under --verbose, and handed to the C library's own vsyslog, so the
// system log receives exactly what it would have without this program.
// Nothing in the libraries changes or needs to know.
#undef _FORTIFY_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <syslog.h>

#include <deque>
#include <mutex>

#include "cli.hpp"

namespace {

using VsyslogFn = void (*)(int, const char *, va_list);

constexpr size_t kKeep = 64;  // lines kept per call; older ones go

std::mutex g_mutex;
std::deque<qpcli::LogLine> g_lines;
bool g_verbose = false;

const char *priority_name(int pri) {
    static const char *const kNames[] = {"emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"};
    return kNames[pri & LOG_PRIMASK];
}

void forward(int pri, const char *fmt, ...) {
    static const auto real = reinterpret_cast<VsyslogFn>(dlsym(RTLD_NEXT, "vsyslog"));
    if (!real) return;
    va_list ap;
    va_start(ap, fmt);
    real(pri, fmt, ap);
    va_end(ap);
}

void capture(int pri, const char *fmt, va_list ap) {
    const int saved_errno = errno;  // %m and the caller's errno
    char text[2048];
    va_list copy;
    va_copy(copy, ap);
    vsnprintf(text, sizeof text, fmt, copy);
    va_end(copy);
    size_t n = strnlen(text, sizeof text);
    while (n > 0 && text[n - 1] == '\n') text[--n] = '\0';
    {
        std::lock_guard<std::mutex> guard(g_mutex);
        try {
            if (g_lines.size() == kKeep) g_lines.pop_front();
            g_lines.push_back({pri & LOG_PRIMASK, text});
        } catch (...) {
            // Out of memory: the line still reaches the system log.
        }
        if (g_verbose) fprintf(stderr, "qoraprinter: log %s: %s\n", priority_name(pri), qpcli::printable(text).c_str());
    }
    errno = saved_errno;
    forward(pri, "%s", text);
    errno = saved_errno;
}

}  // namespace

namespace qpcli {

void set_verbose(bool on) { g_verbose = on; }

std::vector<LogLine> take_log() {
    std::lock_guard<std::mutex> guard(g_mutex);
    std::vector<LogLine> out(g_lines.begin(), g_lines.end());
    g_lines.clear();
    return out;
}

}  // namespace qpcli

extern "C" {

[[gnu::visibility("default")]] void vsyslog(int pri, const char *fmt, va_list ap) { capture(pri, fmt, ap); }

[[gnu::visibility("default")]] void syslog(int pri, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    capture(pri, fmt, ap);
    va_end(ap);
}

[[gnu::visibility("default")]] void __vsyslog_chk(int pri, int, const char *fmt, va_list ap) { capture(pri, fmt, ap); }

[[gnu::visibility("default")]] void __syslog_chk(int pri, int, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    capture(pri, fmt, ap);
    va_end(ap);
}

}  // extern "C"
