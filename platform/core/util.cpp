// Small helpers of the core library: descriptors, lines, whole-file reads,
// line formats and directory creation.
#include "core_internal.hpp"
#include "safe_file.hpp"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <limits>

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

bool next_line(std::string_view data, size_t &pos, Line &line) {
    if (pos >= data.size()) return false;
    const char *begin = data.data() + pos;
    const size_t left = data.size() - pos;
    const char *nl = static_cast<const char *>(memchr(begin, '\n', left));
    if (!nl) {
        line = {{begin, left}, {}};
        pos = data.size();
        return true;
    }
    const size_t len = static_cast<size_t>(nl - begin);
    size_t text = len;
    if (text > 0 && begin[text - 1] == '\r') --text;
    line = {{begin, text}, {begin + text, len + 1 - text}};
    pos += len + 1;
    return true;
}

void Splice::keep(std::string_view bytes) {
    if (bytes.empty()) return;
    // Bytes that continue the previous piece in memory join it: lines kept
    // one by one go out as one run.
    if (!pieces_.empty() && pieces_.back().data() + pieces_.back().size() == bytes.data()) {
        pieces_.back() = {pieces_.back().data(), pieces_.back().size() + bytes.size()};
        return;
    }
    pieces_.push_back(bytes);
}

void Splice::add(std::string text) {
    if (text.empty()) return;
    owned_.push_back(std::move(text));
    pieces_.emplace_back(owned_.back());
}

void Splice::ensure_newline() {
    if (!pieces_.empty() && pieces_.back().back() != '\n') add("\n");
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
    // Files of root's own directories are read whole: no bound but memory.
    return qp::safefile::read_bounded(fd, out, std::numeric_limits<size_t>::max() / 2);
}

int read_whole(const char *path, std::string &out) {
    Fd fd{::open(path, O_RDONLY | O_CLOEXEC)};
    if (!fd.ok()) return errno ? errno : EIO;
    struct stat st {};
    if (::fstat(fd.get(), &st) == 0 && S_ISDIR(st.st_mode)) return EISDIR;
    return read_whole_fd(fd.get(), out);
}

int read_table(const char *path, std::string &out) {
    namespace sf = qp::safefile;
    out.clear();
    std::string dir, name;
    if (!sf::split_path(path, dir, name)) return EISDIR;
    Fd dfd{sf::open_dir(dir.c_str())};
    if (!dfd.ok()) return errno == ENOTDIR ? ENOENT : (errno ? errno : EIO);
    const bool shared = sf::dir_is_shared_fd(dfd.get());
    Fd fd{sf::open_read(dfd.get(), name.c_str(), shared)};
    if (!fd.ok()) return errno == sf::kUntrusted ? ENOENT : (errno ? errno : EIO);
    return shared ? sf::read_bounded(fd.get(), out, sf::kTableLimit) : read_whole_fd(fd.get(), out);
}

int read_table_or_fail(const char *path, std::string &out) {
    const int rc = read_table(path, out);
    if (rc == 0) return 0;
    QC_FAIL(rc == ENOENT ? ERR_OPEN_FAILED : ERR_READ_FAILED);
    return -1;
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

namespace qc {

int FirstEntries::add(std::string_view key, std::string_view value) {
    key = key.substr(0, key.find('\0'));
    if (key.empty() || !seen_.insert(key).second) return 0;
    key_.assign(key);
    value_.assign(value);
    if (QLIBCSzHashSetValue(hash_, key_.c_str(), value_.c_str()) < 0) return -1;
    ++count_;
    return 0;
}

}  // namespace qc
