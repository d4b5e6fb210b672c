// The syslog catcher: a datagram socket on /dev/log whose messages become
// lines of a plain file the tests read.
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cctype>

#include "sandbox.hpp"

namespace qps {
namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// "Mmm dd hh:mm:ss " as syslog(3) writes it (day padded with a blank).
bool is_timestamp(std::string_view s) {
    if (s.size() < 16) return false;
    for (int i = 0; i < 3; ++i)
        if (!std::isalpha(static_cast<unsigned char>(s[i]))) return false;
    if (s[3] != ' ' || (s[4] != ' ' && !is_digit(s[4])) || !is_digit(s[5]) || s[6] != ' ') return false;
    return is_digit(s[7]) && is_digit(s[8]) && s[9] == ':' && is_digit(s[10]) && is_digit(s[11]) &&
           s[12] == ':' && is_digit(s[13]) && is_digit(s[14]) && s[15] == ' ';
}

}  // namespace

std::string syslog_line(std::string_view d) {
    // Stream senders terminate with NUL; datagram senders may too.
    while (!d.empty() && d.back() == '\0') d.remove_suffix(1);

    int severity = 5;  // LOG_NOTICE: what syslogd assumes without a priority
    if (d.size() >= 3 && d[0] == '<' && is_digit(d[1])) {
        size_t i = 1;
        int pri = 0;
        while (i < d.size() && i < 5 && is_digit(d[i])) pri = pri * 10 + (d[i++] - '0');
        if (i < d.size() && d[i] == '>') {
            severity = pri & 7;
            d.remove_prefix(i + 1);
        }
    }
    if (is_timestamp(d)) {
        d.remove_prefix(16);
        // The tag ("prog" or "prog[pid]") ends at the first ": ".  A blank
        // before that means the sender gave no tag, unless it ends in
        // "[pid]" (an ident with blanks, opened with LOG_PID).
        size_t colon = d.find(": ");
        if (colon != std::string_view::npos) {
            std::string_view tag = d.substr(0, colon);
            bool plain = tag.find(' ') == std::string_view::npos;
            size_t open = tag.rfind('[');
            bool with_pid = open != std::string_view::npos && open + 2 < tag.size() && tag.back() == ']' &&
                            tag.find_first_not_of("0123456789", open + 1) == tag.size() - 1;
            if (plain || with_pid) d.remove_prefix(colon + 2);
        }
    }
    if (!d.empty() && d.back() == '\n') d.remove_suffix(1);

    std::string line = std::to_string(severity);
    line += ' ';
    line.reserve(line.size() + d.size() + 1);
    for (char c : d) {
        if (c == '\n')
            line += "\\n";
        else
            line += c;
    }
    line += '\n';
    return line;
}

int bind_log_socket(const char *path) {
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    // A large receive buffer so bursts from many processes never make a
    // sender wait for the catcher.
    int size = 32 << 20;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path, sizeof addr.sun_path - 1);
    unlink(path);
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0) {
        int e = errno;
        close(fd);
        errno = e;
        return -1;
    }
    chmod(path, 0666);
    return fd;
}

size_t drain_log_socket(int sock, int out_fd) {
    enum { kBatch = 64, kMax = 65536 };
    static char bufs[kBatch][kMax];
    struct mmsghdr msgs[kBatch];
    struct iovec iov[kBatch];
    size_t total = 0;
    for (;;) {
        for (int i = 0; i < kBatch; ++i) {
            iov[i] = {bufs[i], kMax};
            msgs[i] = {};
            msgs[i].msg_hdr.msg_iov = &iov[i];
            msgs[i].msg_hdr.msg_iovlen = 1;
        }
        int n = recvmmsg(sock, msgs, kBatch, MSG_DONTWAIT, nullptr);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return total;
        std::string out;
        for (int i = 0; i < n; ++i) out += syslog_line(std::string_view(bufs[i], msgs[i].msg_len));
        for (size_t off = 0; off < out.size();) {
            ssize_t w = write(out_fd, out.data() + off, out.size() - off);
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) break;
            off += static_cast<size_t>(w);
        }
        total += static_cast<size_t>(n);
        if (n < kBatch) return total;
    }
}

}  // namespace qps
