// LogCapture: reads the sandbox's syslog catcher file.
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
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
    std::string out;
    int fd = open(kSyslogFile, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return out;
    char buf[65536];
    for (off_t off = start;;) {
        ssize_t n = pread(fd, buf, sizeof buf, off);
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
        off += n;
    }
    close(fd);
    return out;
}

// Sends a unique marker through syslog(3) and waits until the catcher has
// written it: every message sent before it is then in the file too.
void flush() {
    static std::atomic<unsigned> counter{0};
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    std::string marker = std::string(kMarker) + std::to_string(getpid()) + "-" +
                         std::to_string(counter++) + "-" + std::to_string(ts.tv_nsec);
    // The marker goes out at LOG_DEBUG even when a test narrowed the mask.
    int mask = setlogmask(0);
    if (!(mask & LOG_MASK(LOG_DEBUG))) setlogmask(mask | LOG_MASK(LOG_DEBUG));
    off_t before = file_size();
    syslog(LOG_DEBUG, "%s", marker.c_str());
    if (!(mask & LOG_MASK(LOG_DEBUG))) setlogmask(mask);
    bool seen = wait_until([&] { return read_from(before).find(marker) != std::string::npos; }, 5000);
    if (!seen) ADD_FAILURE() << "syslog catcher did not deliver " << marker << " (not in the sandbox?)";
}

bool parse_line(std::string_view raw, LogLine &out) {
    size_t sp = raw.find(' ');
    if (sp == std::string_view::npos || sp == 0) return false;
    out.severity = std::atoi(std::string(raw.substr(0, sp)).c_str());
    out.text = std::string(raw.substr(sp + 1));
    return true;
}

}  // namespace

LogCapture::LogCapture() : start_(0) { reset(); }

void LogCapture::reset() {
    flush();
    start_ = file_size();
}

std::vector<LogLine> LogCapture::lines() {
    flush();
    std::vector<LogLine> result;
    std::string text = read_from(start_);
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string::npos) nl = text.size();
        LogLine line;
        if (parse_line(std::string_view(text).substr(pos, nl - pos), line) &&
            line.text.compare(0, kMarker.size(), kMarker) != 0)
            result.push_back(std::move(line));
        pos = nl + 1;
    }
    return result;
}

size_t LogCapture::count(std::string_view text) {
    size_t n = 0;
    for (const LogLine &l : lines())
        if (l.text.find(text) != std::string::npos) ++n;
    return n;
}

size_t LogCapture::count(int severity, std::string_view text) {
    size_t n = 0;
    for (const LogLine &l : lines())
        if (l.severity == severity && l.text.find(text) != std::string::npos) ++n;
    return n;
}

std::string LogCapture::dump() {
    std::string out;
    for (const LogLine &l : lines()) out += std::to_string(l.severity) + " " + l.text + "\n";
    return out;
}

}  // namespace qpt
