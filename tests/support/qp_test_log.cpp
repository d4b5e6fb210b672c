// LogCapture: reads the sandbox's syslog catcher file.
#include <stdlib.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "qp_test.hpp"

namespace qpt {
namespace {

constexpr std::string_view kMarker = "qpt-log-flush ";

off_t file_size() {
    struct stat st;
    return stat(kSyslogFile, &st) == 0 ? st.st_size : 0;
}

// The catcher file from byte `start` on.
std::string read_from(off_t start) {
    const std::string all = read_file(kSyslogFile);
    return static_cast<size_t>(start) < all.size() ? all.substr(static_cast<size_t>(start)) : "";
}

// Sends a unique marker through syslog(3) and waits until the catcher has
// written it: every message sent before it is then in the file too.
void flush() {
    static std::atomic<unsigned> counter{0};
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    const std::string marker = std::string(kMarker) + std::to_string(getpid()) + "-" + std::to_string(counter++) +
                               "-" + std::to_string(ts.tv_nsec);
    // The marker goes out at LOG_DEBUG even when a test narrowed the mask.
    const int mask = setlogmask(0);
    setlogmask(mask | LOG_MASK(LOG_DEBUG));
    const off_t before = file_size();
    syslog(LOG_DEBUG, "%s", marker.c_str());
    setlogmask(mask);
    if (!wait_until([&] { return read_from(before).find(marker) != std::string::npos; }, 5000))
        ADD_FAILURE() << "syslog catcher did not deliver " << marker << " (not in the sandbox?)";
}

}  // namespace

LogCapture::LogCapture() : start_(0) { reset(); }

void LogCapture::reset() {
    flush();
    start_ = file_size();
}

// Each line is "<severity> text".
std::vector<LogLine> LogCapture::lines() {
    flush();
    std::vector<LogLine> result;
    std::istringstream in(read_from(start_));
    for (std::string raw; std::getline(in, raw);) {
        const size_t sp = raw.find(' ');
        if (sp != std::string::npos && sp > 0 && raw.compare(sp + 1, kMarker.size(), kMarker) != 0)
            result.push_back({atoi(raw.c_str()), raw.substr(sp + 1)});
    }
    return result;
}

size_t LogCapture::count(std::string_view text) { return count(-1, text); }

// Severity -1: any.
size_t LogCapture::count(int severity, std::string_view text) {
    size_t n = 0;
    for (const LogLine &l : lines()) n += (severity < 0 || l.severity == severity) && l.text.find(text) != std::string::npos;
    return n;
}

std::string LogCapture::dump() {
    std::string out;
    for (const LogLine &l : lines()) out += std::to_string(l.severity) + " " + l.text + "\n";
    return out;
}

}  // namespace qpt
