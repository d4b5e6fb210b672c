// The qoraprinter command: error sentences, option helpers, secrets, JSON.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>

#include "cli.hpp"
#include "qoracore.h"
#include "qoraprinter.h"

namespace qpcli {

namespace {

// The core library's record of the last failed program.  Looked up at run
// time: a core library without it only means no tool line in the message.
using TakeFailureFn = int (*)(char *, int, int *, char *, int);
TakeFailureFn take_failure() {
    static const auto fn = reinterpret_cast<TakeFailureFn>(dlsym(RTLD_DEFAULT, "QLIBCExecTakeFailure"));
    return fn;
}

// Codes of a failed system call, where errno tells why.
bool errno_applies(unsigned int code) {
    switch (code) {
        case ERR_LOCK_FAILED:
        case ERR_UNLOCK_FAILED:
        case ERR_OPEN_FAILED:
        case ERR_READ_FAILED:
        case ERR_WRITE_FAILED:
        case ERR_RENAME_FAILED:
            return true;
        default:
            return false;
    }
}

}  // namespace

const char *error_name(unsigned int code) {
    switch (code) {
        case ERR_NAME_TOO_LONG:
            return "ERR_NAME_TOO_LONG";
        case ERR_OUT_OF_MEMORY:
            return "ERR_OUT_OF_MEMORY";
        case ERR_LOCK_FAILED:
            return "ERR_LOCK_FAILED";
        case ERR_UNLOCK_FAILED:
            return "ERR_UNLOCK_FAILED";
        case ERR_OPEN_FAILED:
            return "ERR_OPEN_FAILED";
        case ERR_READ_FAILED:
            return "ERR_READ_FAILED";
        case ERR_WRITE_FAILED:
            return "ERR_WRITE_FAILED";
        case ERR_BAD_PARAMETER:
            return "ERR_BAD_PARAMETER";
        case ERR_KEY_NOT_FOUND:
            return "ERR_KEY_NOT_FOUND";
        case ERR_FIELD_NOT_FOUND:
            return "ERR_FIELD_NOT_FOUND";
        case ERR_RENAME_FAILED:
            return "ERR_RENAME_FAILED";
        case ERR_EXTERNAL_FAILED:
            return "ERR_EXTERNAL_FAILED";
        case ERR_REMOVE_KEY_FAILED:
            return "ERR_REMOVE_KEY_FAILED";
        case ERR_VALUE_TOO_LONG:
            return "ERR_VALUE_TOO_LONG";
        case ERR_SERVICE_RUNNING:
            return "ERR_SERVICE_RUNNING";
        default:
            return "";
    }
}

std::string printable(std::string_view s) {
    std::string out(s);
    for (char &c : out)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    return out;
}

void begin_call() {
    QLIBCErrSetEx(0, "", 0);
    take_log();
    if (auto fn = take_failure()) fn(nullptr, 0, nullptr, nullptr, 0);
    errno = 0;
}

int fail(std::string_view what) {
    const int err = errno;
    const unsigned int code = QLIBCErrGet();
    std::string head = "qoraprinter: " + std::string(what) + " failed";
    if (code != 0) {
        char hex[16];
        std::snprintf(hex, sizeof hex, "0x%04X", code);
        const std::string name = error_name(code);
        head += name.empty() ? ": error " + std::string(hex) : ": " + name + " (" + hex + ")";
        if (err != 0 && errno_applies(code)) head += std::string(": ") + strerror(err);
    }
    std::fprintf(stderr, "%s.\n", head.c_str());
    // The library's own lines for this failure (the last few, in order).
    std::vector<LogLine> lines;
    for (LogLine &l : take_log())
        if (l.priority <= LOG_ERR) lines.push_back(std::move(l));
    for (size_t i = lines.size() > 4 ? lines.size() - 4 : 0; i < lines.size(); ++i)
        std::fprintf(stderr, "  The library logged: %s\n", printable(lines[i].text).c_str());
    char path[256] = "", line[512] = "";
    int result = 0;
    if (auto fn = take_failure(); fn && fn(path, sizeof path, &result, line, sizeof line) == 1) {
        std::string how = result > 0      ? "exited with status " + std::to_string(result)
                          : result < -128 ? "was killed by signal " + std::to_string(-result - 128)
                                          : std::string("could not run");
        std::fprintf(stderr, "  %s %s%s%s\n", printable(path).c_str(), how.c_str(), line[0] ? ": " : "",
                     printable(line).c_str());
    }
    return kFailed;
}

int done(int rc, const char *what) { return rc == 0 ? kOk : fail(what); }

int say(int status, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::string text(512, '\0');
    vsnprintf(text.data(), text.size(), fmt, ap);
    va_end(ap);
    std::fprintf(stderr, "qoraprinter: %s\n", printable(text.c_str()).c_str());
    return status;
}

bool take_option(Args &args, std::string_view flag, std::string &value) {
    for (size_t i = 0; i + 1 < args.size(); ++i) {
        if (args[i] == flag) {
            value = args[i + 1];
            args.erase(args.begin() + static_cast<long>(i), args.begin() + static_cast<long>(i) + 2);
            return true;
        }
    }
    return false;
}

bool take_flag(Args &args, std::string_view flag) {
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == flag) {
            args.erase(args.begin() + static_cast<long>(i));
            return true;
        }
    }
    return false;
}

bool read_secret(const std::string &from, std::string &secret, size_t max) {
    const bool in = from == "-";
    const int fd = in ? 0 : ::open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        say(0, "cannot open %s: %s.", from.c_str(), strerror(errno));
        return false;
    }
    // One line, the line end and a byte more tell "too long" from "fits".
    char buf[512];
    const size_t want = std::min(sizeof buf, max + 3);
    size_t n = 0;
    while (n < want && !std::memchr(buf, '\n', n)) {
        const ssize_t r = ::read(fd, buf + n, want - n);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) break;
        n += static_cast<size_t>(r);
    }
    if (!in) ::close(fd);
    size_t len = 0;
    while (len < n && buf[len] != '\n') ++len;
    if (len > 0 && buf[len - 1] == '\r') --len;
    bool ok = len > 0 && len <= max;
    if (ok)
        secret.assign(buf, len);
    else
        say(0, "the secret in %s is %s.", in ? "standard input" : from.c_str(), len ? "too long" : "empty");
    explicit_bzero(buf, sizeof buf);
    return ok;
}

// ---- JSON ------------------------------------------------------------------------

void Json::comma() {
    if (!first_) out_ += ',';
    first_ = false;
}

// An opening bracket, after KEY when one is given, and a closing one.
Json &Json::opening(char bracket, std::string_view k) {
    if (k.data()) {
        key(k);
    } else {
        comma();
    }
    out_ += bracket;
    first_ = true;
    return *this;
}

Json &Json::closing(char bracket) {
    out_ += bracket;
    first_ = false;
    return *this;
}

Json &Json::key(std::string_view k) {
    str(k);
    out_ += ':';
    first_ = true;  // the value follows without a comma
    return *this;
}

// Strings are escaped as JSON requires; bytes that are not UTF-8 (a device
// may send anything) become U+FFFD.
Json &Json::str(std::string_view s) {
    comma();
    out_ += '"';
    for (size_t i = 0; i < s.size();) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        if (c == '"' || c == '\\') {
            out_ += '\\';
            out_ += static_cast<char>(c);
        } else if (c == '\n') {
            out_ += "\\n";
        } else if (c == '\t') {
            out_ += "\\t";
        } else if (c < 0x20 || c == 0x7f) {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\u%04x", c);
            out_ += esc;
        } else if (c < 0x80) {
            out_ += static_cast<char>(c);
        } else {
            // Length of a well-formed sequence starting here, 0 when none.
            size_t len = c >= 0xC2 && c <= 0xDF ? 2 : c >= 0xE0 && c <= 0xEF ? 3 : c >= 0xF0 && c <= 0xF4 ? 4 : 0;
            if (i + len > s.size()) len = 0;
            for (size_t k = 1; k < len; ++k)
                if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) len = 0;
            if (len == 3 || len == 4) {
                const unsigned char d = static_cast<unsigned char>(s[i + 1]);
                if ((c == 0xE0 && d < 0xA0) || (c == 0xED && d > 0x9F) || (c == 0xF0 && d < 0x90) ||
                    (c == 0xF4 && d > 0x8F))
                    len = 0;  // overlong, surrogate or past U+10FFFF
            }
            if (len == 0) {
                out_ += "\\ufffd";
                ++i;
                continue;
            }
            out_.append(s.substr(i, len));
            i += len;
            continue;
        }
        ++i;
    }
    out_ += '"';
    return *this;
}

Json &Json::field(std::string_view k, bool v) {
    key(k);
    comma();
    out_ += v ? "true" : "false";
    return *this;
}

Json &Json::field(std::string_view k, long long v) {
    key(k);
    comma();
    out_ += std::to_string(v);
    return *this;
}

Json &Json::null(std::string_view k) {
    key(k);
    comma();
    out_ += "null";
    return *this;
}

void Json::print() { std::printf("%s\n", out_.c_str()); }

int print_queue_name(const std::string &printer, std::string_view what) {
    char name[128] = {};
    if (QORAPrinterCupsNameGet(printer.c_str(), name, sizeof name) != 0) return fail(what);
    if (json())
        Json().open().field("printer", printer).field("queue", name).close().print();
    else
        std::printf("%s\n", name);
    return kOk;
}

}  // namespace qpcli
