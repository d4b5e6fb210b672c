// Running programs without a shell: posix_spawn (vfork semantics in glibc, so
// a large caller is not copied), every descriptor above 2 closed in the child
// (whether or not the caller marked it close-on-exec), the child's stdin on
// /dev/null and its stderr on a pipe whose first line is kept when the program
// fails, a clean signal state, and a C locale so that the
// callers' parsers see untranslated output.  Arguments are passed as given.
//
// Every run is bounded: a program still running kRunLimitMs after its start
// is killed (SIGKILL), which is a failure with ERR_EXTERNAL_FAILED and a log
// line; the output read through QLIBCPopen is bounded by kOutputLimit (past
// it the stream ends, the program is killed, and QLIBCPclose fails the same
// way).  A caller that ignores SIGCHLD cannot learn how a program ended: no
// program is run and the result is -1 (NULL) with ERR_SIGCHLD_IGNORED.
#include "core_internal.hpp"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <mutex>
#include <new>

extern char **environ;

namespace {

// More arguments than any caller passes; a missing NULL terminator stops here
// instead of running off the stack.
constexpr int kMaxArgs = 1024;

// The child's stderr: a pipe read once the child has ended.  Both ends are
// non-blocking, so a child that fills it gets EAGAIN rather than waiting for
// a reader that only comes after it exits.
struct StderrTap {
    qc::Fd rd, wr;
    // Without a pipe the child's stderr goes to /dev/null.
    void open() {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
            rd.reset(fds[0]);
            wr.reset(fds[1]);
        }
    }
    // The first non-empty line waiting in the pipe, control bytes as blanks.
    std::string first_line() noexcept {
        char buf[4096];
        ssize_t n = rd.ok() ? ::read(rd.get(), buf, sizeof buf) : -1;
        std::string_view all(buf, n > 0 ? static_cast<size_t>(n) : 0), line;
        while (line.empty() && !all.empty()) {
            size_t end = all.find('\n');
            line = qc::trim(all.substr(0, end));
            all = end == all.npos ? std::string_view() : all.substr(end + 1);
        }
        try {
            return qc::neutralise(line);
        } catch (...) {
            return {};
        }
    }
};

// The last failed run, for QLIBCExecTakeFailure.
struct Failure {
    bool set = false;
    std::string path, line;
    int result = 0;
};
std::mutex g_failure_mutex;
Failure g_failure;

int note_failure(const char *path, int result, std::string_view line) noexcept {
    if (result == 0) return 0;
    try {
        std::lock_guard<std::mutex> guard(g_failure_mutex);
        g_failure = Failure{true, path, std::string(line), result};
    } catch (...) {
        // The record is a courtesy; the result stands without it.
    }
    return result;
}

// Longest run of a program, and most output read from one through a stream.
constexpr long long kRunLimitMs = 120000;
constexpr size_t kOutputLimit = size_t{16} << 20;

long long now_ms() {
    struct timespec ts {};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// With SIGCHLD ignored the kernel reaps children itself: waitpid can only
// fail, after the program ran, so the run is refused up front instead.
bool sigchld_ignored() {
    struct sigaction sa {};
    if (::sigaction(SIGCHLD, nullptr, &sa) != 0) return false;
    if (sa.sa_flags & SA_NOCLDWAIT) return true;
    return !(sa.sa_flags & SA_SIGINFO) && sa.sa_handler == SIG_IGN;
}

bool refuse_if_unwaitable() {
    if (!sigchld_ignored()) return false;
    QC_FAIL(ERR_SIGCHLD_IGNORED);
    return true;
}

// 0 for exit 0, the exit status, or negative for a child that did not exit.
// An exit status is the program's answer, not a failure of the run: only a
// negative result sets the slot.
int exit_result(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    QC_FAIL(ERR_EXTERNAL_FAILED);
    return WIFSIGNALED(status) ? -(128 + WTERMSIG(status)) : -1;
}

void log_killed(const char *path, const char *why) {
    ::syslog(LOG_ERR, "%s:%d %s killed: %s", __FILE_NAME__, __LINE__, path, why);
}

int run_and_wait(const char *path, const std::vector<std::string> &argv) {
    if (refuse_if_unwaitable()) return -1;
    const long long deadline = now_ms() + kRunLimitMs;
    StderrTap tap;
    tap.open();
    pid_t pid = qc::spawn(path, argv, -1, tap.wr.get());
    tap.wr.reset();
    if (pid < 0) return note_failure(path, -1, ::strerror(errno));
    int status = 0;
    bool killed = false;
    if (qc::wait_child_until(pid, deadline, status, killed) != 0) {
        QC_FAIL(ERR_EXTERNAL_FAILED);
        return note_failure(path, -1, "");
    }
    if (killed) log_killed(path, "ran past its time limit");
    return note_failure(path, exit_result(status), tap.first_line());
}

// The stream of QLIBCPopen reads the pipe through these bounds.
struct Stream {
    int fd = -1;
    pid_t pid = -1;
    long long deadline = 0;
    size_t total = 0;
    const char *cut = nullptr;  // why the output was cut short, if it was
    std::string path;
    StderrTap tap;  // the program's stderr
};

void cut_stream(Stream &s, const char *why) {
    s.cut = why;
    ::kill(s.pid, SIGKILL);
}

ssize_t stream_read(void *cookie, char *buf, size_t size) {
    auto &s = *static_cast<Stream *>(cookie);
    if (s.cut) return 0;
    for (;;) {
        const long long left = s.deadline - now_ms();
        if (left <= 0) {
            cut_stream(s, "ran past its time limit");
            return 0;
        }
        // An interrupted wait is reported as an interrupted read would be:
        // callers count and retry those themselves.
        struct pollfd p {
            s.fd, POLLIN, 0
        };
        int rc = ::poll(&p, 1, static_cast<int>(std::min<long long>(left, 1000)));
        if (rc < 0) return -1;
        if (rc == 0) continue;
        char extra;
        const size_t room = kOutputLimit - s.total;
        ssize_t n = room > 0 ? ::read(s.fd, buf, std::min(size, room)) : ::read(s.fd, &extra, 1);
        if (n < 0) return -1;
        if (room == 0) {
            if (n > 0) cut_stream(s, "wrote more output than allowed");
            return 0;
        }
        s.total += static_cast<size_t>(n);
        return n;
    }
}

int stream_close(void *cookie) {
    auto &s = *static_cast<Stream *>(cookie);
    int rc = s.fd >= 0 ? ::close(s.fd) : 0;
    s.fd = -1;
    return rc;
}

// Streams of QLIBCPopen and the children behind them.
std::mutex g_popen_mutex;
std::map<FILE *, std::unique_ptr<Stream>> g_popen_children;

bool path_ok(const char *path) { return path && path[0] == '/'; }

// Appends NULL-ended variadic arguments, at most kMaxArgs of them.
void append_args(std::vector<std::string> &argv, va_list ap) {
    for (int i = 0; i < kMaxArgs; ++i) {
        const char *a = va_arg(ap, const char *);
        if (!a) break;
        argv.emplace_back(a);
    }
}

}  // namespace

namespace qc {

std::vector<std::string> child_environment() {
    std::vector<std::string> env;
    for (char **e = environ; e && *e; ++e) {
        std::string_view v = *e;
        if (v.substr(0, 5) == "LANG=" || v.substr(0, 3) == "LC_") continue;
        env.emplace_back(v);
    }
    env.emplace_back("LC_ALL=C");
    return env;
}

namespace {

// posix_spawn's file actions and attributes, destroyed on every path.
template <class T, int (*Init)(T *), int (*Destroy)(T *)>
struct SpawnObject {
    T v;
    bool ok = Init(&v) == 0;
    SpawnObject() = default;
    SpawnObject(const SpawnObject &) = delete;
    SpawnObject &operator=(const SpawnObject &) = delete;
    ~SpawnObject() {
        if (ok) Destroy(&v);
    }
};
using SpawnActions =
    SpawnObject<posix_spawn_file_actions_t, ::posix_spawn_file_actions_init, ::posix_spawn_file_actions_destroy>;
using SpawnAttr = SpawnObject<posix_spawnattr_t, ::posix_spawnattr_init, ::posix_spawnattr_destroy>;

}  // namespace

pid_t spawn(const char *path, const std::vector<std::string> &argv, int stdout_fd, int stderr_fd) {
    std::vector<std::string> env = child_environment();
    std::vector<char *> cargv, cenv;
    for (const auto &a : argv) cargv.push_back(const_cast<char *>(a.c_str()));
    cargv.push_back(nullptr);
    for (const auto &e : env) cenv.push_back(const_cast<char *>(e.c_str()));
    cenv.push_back(nullptr);

    SpawnActions actions;
    SpawnAttr attr;
    if (!actions.ok || !attr.ok) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
    int rc = ::posix_spawn_file_actions_addopen(&actions.v, 0, "/dev/null", O_RDONLY, 0);
    if (rc == 0) {
        rc = stdout_fd >= 0 ? ::posix_spawn_file_actions_adddup2(&actions.v, stdout_fd, 1)
                            : ::posix_spawn_file_actions_addopen(&actions.v, 1, "/dev/null", O_WRONLY, 0);
    }
    if (rc == 0) {
        rc = stderr_fd >= 0 ? ::posix_spawn_file_actions_adddup2(&actions.v, stderr_fd, 2)
                            : ::posix_spawn_file_actions_addopen(&actions.v, 2, "/dev/null", O_WRONLY, 0);
    }
    // Descriptors the caller left inheritable (a secret file, a lock) stay here.
    if (rc == 0) rc = ::posix_spawn_file_actions_addclosefrom_np(&actions.v, 3);

    // The child must not inherit the caller's blocked or ignored signals
    // (an ignored SIGPIPE or SIGCHLD changes how tools behave).
    sigset_t empty, all;
    sigemptyset(&empty);
    sigfillset(&all);
    if (rc == 0) rc = ::posix_spawnattr_setsigmask(&attr.v, &empty);
    if (rc == 0) rc = ::posix_spawnattr_setsigdefault(&attr.v, &all);
    if (rc == 0) rc = ::posix_spawnattr_setflags(&attr.v, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    pid_t pid = -1;
    if (rc == 0) rc = ::posix_spawn(&pid, path, &actions.v, &attr.v, cargv.data(), cenv.data());
    if (rc != 0) {
        QC_FAIL(ERR_EXTERNAL_FAILED);
        errno = rc;
        return -1;
    }
    return pid;
}

int wait_child(pid_t pid, int &status) {
    for (;;) {
        pid_t r = ::waitpid(pid, &status, 0);
        if (r == pid) return 0;
        if (r < 0 && errno == EINTR) continue;
        return -1;
    }
}

int wait_child_until(pid_t pid, long long deadline_ms, int &status, bool &killed) {
    killed = false;
    // A pidfd turns the wait into a poll with a timeout; without one (old
    // kernels) the child is polled every few milliseconds.
    Fd pidfd{static_cast<int>(::syscall(SYS_pidfd_open, pid, 0))};
    long long nap_ms = 1;
    for (;;) {
        pid_t r = ::waitpid(pid, &status, WNOHANG);
        if (r == pid) return 0;
        if (r < 0 && errno != EINTR) return -1;
        const long long left = deadline_ms - now_ms();
        if (left <= 0) break;
        if (pidfd.ok()) {
            struct pollfd p {
                pidfd.get(), POLLIN, 0
            };
            (void)::poll(&p, 1, static_cast<int>(std::min<long long>(left, 1000)));
        } else {
            struct timespec tick {
                0, std::min(nap_ms, left) * 1000 * 1000
            };
            ::nanosleep(&tick, nullptr);
            nap_ms = std::min<long long>(nap_ms * 2, 50);
        }
    }
    killed = true;
    ::kill(pid, SIGKILL);
    return wait_child(pid, status);
}

}  // namespace qc

namespace {

// The frame of the Exec entry points: a bad path or argument list fails with
// 0x0D00 and a failed allocation with 0x0200; otherwise FILL (which fills
// the argument vector) runs and then the program.
template <class Fill>
int exec_frame(const char *path, bool args_ok, Fill &&fill) noexcept {
    if (!path_ok(path) || !args_ok) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        std::vector<std::string> argv;
        fill(argv);
        return run_and_wait(path, argv);
    } catch (const std::bad_alloc &) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
}

}  // namespace

extern "C" QLIBC_API int QLIBCExec(const char *szPath, const char *szArg1, const char *szArg2, const char *szArg3,
                                   const char *szArg4) {
    return exec_frame(szPath, true, [&](std::vector<std::string> &argv) {
        argv.emplace_back(szPath);
        for (const char *a : {szArg1, szArg2, szArg3, szArg4}) {
            if (!a) break;
            argv.emplace_back(a);
        }
    });
}

extern "C" QLIBC_API int QLIBCExecl(const char *szPath, int iOptions, ...) {
    va_list ap;
    va_start(ap, iOptions);
    const int result = exec_frame(szPath, true, [&](std::vector<std::string> &argv) {
        argv.emplace_back(szPath);
        append_args(argv, ap);
    });
    va_end(ap);
    return result;
}

extern "C" QLIBC_API int QLIBCExecv(const char *szPath, char *const argv[], int iOptions) {
    (void)iOptions;
    return exec_frame(szPath, argv && argv[0], [&](std::vector<std::string> &args) {
        for (int i = 0; argv[i] && i < kMaxArgs; ++i) args.emplace_back(argv[i]);
    });
}

extern "C" QLIBC_API FILE *QLIBCPopen(const char *szPath, const char *szMode, ...) {
    if (!path_ok(szPath) || !szMode || strcmp(szMode, "r") != 0) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return nullptr;
    }
    // Callers tell an interrupted read from the end of the output by errno,
    // so a successful start leaves errno as it found it.
    const int saved_errno = errno;
    try {
        std::vector<std::string> argv{szPath};
        va_list ap;
        va_start(ap, szMode);
        append_args(argv, ap);
        va_end(ap);

        if (refuse_if_unwaitable()) return nullptr;
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) {
            QC_FAIL(ERR_OPEN_FAILED);
            return nullptr;
        }
        qc::Fd rd{fds[0]}, wr{fds[1]};
        auto stream = std::make_unique<Stream>();
        stream->path = szPath;
        stream->deadline = now_ms() + kRunLimitMs;
        stream->tap.open();
        pid_t pid = qc::spawn(szPath, argv, wr.get(), stream->tap.wr.get());
        wr.reset();  // or the reader never sees the end of the output
        stream->tap.wr.reset();
        if (pid < 0) {
            note_failure(szPath, -1, ::strerror(errno));
            QC_FAIL(ERR_OPEN_FAILED);
            return nullptr;
        }
        stream->fd = rd.release();
        stream->pid = pid;
        cookie_io_functions_t io{stream_read, nullptr, nullptr, stream_close};
        FILE *fp = ::fopencookie(stream.get(), "r", io);
        if (!fp) {
            stream_close(stream.get());
            ::kill(pid, SIGKILL);
            int status;
            qc::wait_child(pid, status);
            QC_FAIL(ERR_OPEN_FAILED);
            return nullptr;
        }
        try {
            std::lock_guard<std::mutex> guard(g_popen_mutex);
            g_popen_children[fp] = std::move(stream);
        } catch (...) {
            ::fclose(fp);
            ::kill(pid, SIGKILL);
            int status;
            qc::wait_child(pid, status);
            throw;
        }
        errno = saved_errno;
        return fp;
    } catch (const std::bad_alloc &) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return nullptr;
    }
}

extern "C" QLIBC_API int QLIBCPclose(FILE *fp) {
    if (!fp) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    std::unique_ptr<Stream> stream;
    {
        std::lock_guard<std::mutex> guard(g_popen_mutex);
        auto it = g_popen_children.find(fp);
        if (it == g_popen_children.end()) {
            QC_FAIL(ERR_BAD_PARAMETER);
            return -1;
        }
        stream = std::move(it->second);
        g_popen_children.erase(it);
    }
    ::fclose(fp);
    int status = 0;
    bool killed = false;
    if (qc::wait_child_until(stream->pid, stream->deadline, status, killed) != 0) {
        QC_FAIL(ERR_EXTERNAL_FAILED);
        return -1;
    }
    if (killed && !stream->cut) stream->cut = "ran past its time limit";
    if (stream->cut) {
        log_killed(stream->path.c_str(), stream->cut);
        QC_FAIL(ERR_EXTERNAL_FAILED);
        return note_failure(stream->path.c_str(), -1, "");
    }
    // A reader that stops early closes the pipe; the child's SIGPIPE is the
    // expected end of the conversation, not a failure of the program.
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGPIPE) return 0;
    return note_failure(stream->path.c_str(), exit_result(status), stream->tap.first_line());
}

extern "C" QLIBC_API int QLIBCExecTakeFailure(char *szPath, int cbPath, int *piResult, char *szLine, int cbLine) {
    Failure f;
    {
        std::lock_guard<std::mutex> guard(g_failure_mutex);
        std::swap(f, g_failure);
    }
    if (szPath && cbPath > 0) qc::copy_out(f.path, szPath, cbPath);
    if (szLine && cbLine > 0) qc::copy_out(f.line, szLine, cbLine);
    if (piResult) *piResult = f.result;
    return f.set ? 1 : 0;
}
