// Small helpers of the core library: descriptors, lines, whole-file reads,
// line formats and directory creation.
#include "core_internal.hpp"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qc {

Fd &Fd::operator=(Fd &&o) noexcept {
    if (this != &o) reset(o.release());
    return *this;
}

Fd::~Fd() { reset(); }

void Fd::reset(int fd) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
}

std::vector<Line> split_lines(std::string_view data) {
    std::vector<Line> lines;
    size_t pos = 0;
    while (pos < data.size()) {
        size_t nl = data.find('\n', pos);
        if (nl == std::string_view::npos) {
            lines.push_back({data.substr(pos), {}});
            break;
        }
        size_t text_end = nl;
        if (text_end > pos && data[text_end - 1] == '\r') --text_end;
        lines.push_back({data.substr(pos, text_end - pos), data.substr(text_end, nl + 1 - text_end)});
        pos = nl + 1;
    }
    return lines;
}

bool is_blank(unsigned char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

std::string_view trim(std::string_view s) {
    while (!s.empty() && is_blank(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
    while (!s.empty() && is_blank(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
    return s;
}

std::string neutralise(std::string_view s) {
    std::string out(s);
    for (char &c : out) {
        unsigned char u = static_cast<unsigned char>(c);
        if ((u < 0x20 && u != '\t') || u == 0x7f) c = ' ';
    }
    return out;
}

bool format_ok(const char *fmt) {
    int conversions = 0;
    for (const char *p = fmt; *p; ++p) {
        if (*p != '%') continue;
        if (p[1] == '%') {
            ++p;
        } else if (p[1] == 's') {
            ++conversions;
            ++p;
        } else {
            return false;
        }
    }
    return conversions == 2;
}

std::string format_line(const char *fmt, const std::string &a, const std::string &b) {
    std::string out;
    const std::string *args[2] = {&a, &b};
    int next = 0;
    for (const char *p = fmt; *p; ++p) {
        if (*p == '%' && p[1] == '%') {
            out += '%';
            ++p;
        } else if (*p == '%' && p[1] == 's' && next < 2) {
            out += *args[next++];
            ++p;
        } else {
            out += *p;
        }
    }
    // A format without a line end would glue the next line to this one.
    if (out.empty() || out.back() != '\n') out += '\n';
    return out;
}

int copy_out(std::string_view s, char *buf, int cb) {
    size_t n = s.size();
    if (n > static_cast<size_t>(cb) - 1) n = static_cast<size_t>(cb) - 1;
    memcpy(buf, s.data(), n);
    buf[n] = '\0';
    return static_cast<int>(n);
}

int read_whole_fd(int fd, std::string &out) {
    out.clear();
    char chunk[65536];
    for (;;) {
        ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno ? errno : EIO;
        }
        if (n == 0) return 0;
        out.append(chunk, static_cast<size_t>(n));
    }
}

int read_whole(const char *path, std::string &out) {
    Fd fd{::open(path, O_RDONLY | O_CLOEXEC)};
    if (!fd.ok()) return errno ? errno : EIO;
    struct stat st {};
    if (::fstat(fd.get(), &st) == 0 && S_ISDIR(st.st_mode)) return EISDIR;
    return read_whole_fd(fd.get(), out);
}

int make_dirs(const std::string &dir, mode_t mode) {
    if (dir.empty()) return 0;
    struct stat st {};
    if (::stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
    size_t slash = dir.find_last_of('/');
    if (slash != std::string::npos && slash > 0) {
        if (int rc = make_dirs(dir.substr(0, slash), mode); rc != 0) return rc;
    }
    if (::mkdir(dir.c_str(), mode) != 0 && errno != EEXIST) return errno;
    return 0;
}

}  // namespace qc
