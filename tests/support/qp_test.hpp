// Test support shared by every test binary.  The binaries run inside the
// sandbox (tests/sandbox): a private overlay of the whole root with fresh
// /dev, /tmp and /run, private network and PID namespaces, and a syslog
// catcher on /dev/log.
#pragma once

#include <sys/types.h>
#include <time.h>

#include <string>
#include <string_view>
#include <vector>

namespace qpt {

// True inside the sandbox (the launcher sets QP_SANDBOX=1).  Tests that
// would touch the machine's real paths must not run outside it.
bool in_sandbox();

// ---- syslog -----------------------------------------------------------------
// The sandbox's catcher appends each datagram sent to /dev/log as one line
// "<pri> text" to kSyslogFile.  LogCapture remembers where the file ended
// when it was made; lines() returns what was logged since, after a flush
// (a marker message sent through syslog and waited for), so every message
// logged before the call is included.
inline constexpr const char *kSyslogFile = "/run/qp-test/syslog";

struct LogLine {
    int severity;      // LOG_ERR 3 ... LOG_DEBUG 7
    std::string text;  // the message as the library formatted it ("file.cpp:12 text")
};

class LogCapture {
public:
    LogCapture() { reset(); }
    std::vector<LogLine> lines();
    // Number of lines (since construction) containing the text, of any or of one severity.
    size_t count(std::string_view text) { return count(-1, text); }
    size_t count(int severity, std::string_view text);
    // Whole log since construction, one line per message, for failure output.
    std::string dump();
    // Forget everything logged so far.
    void reset();

private:
    off_t start_ = 0;
};

// ---- files ----------------------------------------------------------------------
std::string read_file(const std::string &path);           // "" when missing
void write_file(const std::string &path, std::string_view content, mode_t mode = 0644);  // creates parents
void mkdirs(const std::string &path, mode_t mode = 0755);
bool exists(const std::string &path);
void remove_file(const std::string &path);

// Number of open descriptors of this process (from /proc/self/fd).
int open_fd_count();

// ---- programs --------------------------------------------------------------------
struct RunResult {
    int status = -1;  // exit status, or 128+signal, or -1 when it could not run
    std::string out, err;
};
// Runs argv[0] (absolute path) with posix_spawn, stdin from the given text.
RunResult run(const std::vector<std::string> &argv, std::string_view input = {});

// Starts a background program in a process group of its own; returns its
// pid.  stop() ends the group and reaps the program.
pid_t start(const std::vector<std::string> &argv);
void stop(pid_t pid, int sig = 15);

// Polls cond every 5 ms until true or timeout; returns the last result.
template <class F>
bool wait_until(F &&cond, int timeout_ms = 5000) {
    const struct timespec step = {0, 5 * 1000 * 1000};
    for (int waited = 0; !cond(); waited += 5) {
        if (waited >= timeout_ms) return cond();
        nanosleep(&step, nullptr);
    }
    return true;
}

// Path of a built program (the build's bin/ directory) and of a source file.
std::string bin_path(std::string_view name);
std::string source_path(std::string_view relative);

}  // namespace qpt
