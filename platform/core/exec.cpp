// Running programs without a shell: posix_spawn (vfork semantics in glibc, so
// a large caller is not copied), every descriptor of ours close-on-exec, the
// child's stdin on /dev/null and its stderr on a pipe whose first line is kept
// when the program fails, a clean signal state, and a C locale so that the
// callers' parsers see untranslated output.
#include "core_internal.hpp"

#include <errno.h>
#include <fcntl.h>
#include <glob.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
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

// Streams of QLIBCPopen and the children behind them, with their stderr.
struct PopenChild {
    pid_t pid;
    std::string path;
    StderrTap tap;
};
std::mutex g_popen_mutex;
std::map<FILE *, PopenChild> g_popen_children;

// 0 for exit 0, the exit status, or negative for a child that did not exit.
int exit_result(int status) {
    if (WIFEXITED(status)) {
        int code = WEXITSTATUS(status);
        if (code != 0) QC_FAIL(ERR_EXTERNAL_FAILED);
        return code;
    }
    QC_FAIL(ERR_EXTERNAL_FAILED);
    return WIFSIGNALED(status) ? -(128 + WTERMSIG(status)) : -1;
}

int run_and_wait(const char *path, const std::vector<std::string> &argv) {
    StderrTap tap;
    tap.open();
    pid_t pid = qc::spawn(path, argv, -1, tap.wr.get());
    tap.wr.reset();
    if (pid < 0) return note_failure(path, -1, ::strerror(errno));
    int status = 0;
    if (qc::wait_child(pid, status) != 0) {
        QC_FAIL(ERR_EXTERNAL_FAILED);
        return note_failure(path, -1, "");
    }
    return note_failure(path, exit_result(status), tap.first_line());
}

bool has_glob_chars(const char *s) { return strpbrk(s, "*?[") != nullptr; }

// Expands a pattern the way a shell would for a simple word: the sorted
// matches, or the pattern itself when nothing matches.
void push_expanded(std::vector<std::string> &argv, const char *arg) {
    if (!has_glob_chars(arg)) {
        argv.emplace_back(arg);
        return;
    }
    glob_t g{};
    if (::glob(arg, 0, nullptr, &g) == 0 && g.gl_pathc > 0) {
        for (size_t i = 0; i < g.gl_pathc; ++i) argv.emplace_back(g.gl_pathv[i]);
    } else {
        argv.emplace_back(arg);
    }
    ::globfree(&g);
}

bool path_ok(const char *path) { return path && path[0] == '/'; }

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

pid_t spawn(const char *path, const std::vector<std::string> &argv, int stdout_fd, int stderr_fd) {
    std::vector<std::string> env = child_environment();
    std::vector<char *> cargv, cenv;
    for (const auto &a : argv) cargv.push_back(const_cast<char *>(a.c_str()));
    cargv.push_back(nullptr);
    for (const auto &e : env) cenv.push_back(const_cast<char *>(e.c_str()));
    cenv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    if (::posix_spawn_file_actions_init(&actions) != 0) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
    posix_spawnattr_t attr;
    if (::posix_spawnattr_init(&attr) != 0) {
        ::posix_spawn_file_actions_destroy(&actions);
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
    int rc = ::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    if (rc == 0) {
        rc = stdout_fd >= 0 ? ::posix_spawn_file_actions_adddup2(&actions, stdout_fd, 1)
                            : ::posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    }
    if (rc == 0) {
        rc = stderr_fd >= 0 ? ::posix_spawn_file_actions_adddup2(&actions, stderr_fd, 2)
                            : ::posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    }

    // The child must not inherit the caller's blocked or ignored signals
    // (an ignored SIGPIPE or SIGCHLD changes how tools behave).
    sigset_t empty, all;
    sigemptyset(&empty);
    sigfillset(&all);
    if (rc == 0) rc = ::posix_spawnattr_setsigmask(&attr, &empty);
    if (rc == 0) rc = ::posix_spawnattr_setsigdefault(&attr, &all);
    if (rc == 0) rc = ::posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    pid_t pid = -1;
    if (rc == 0) rc = ::posix_spawn(&pid, path, &actions, &attr, cargv.data(), cenv.data());
    ::posix_spawnattr_destroy(&attr);
    ::posix_spawn_file_actions_destroy(&actions);
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

}  // namespace qc

extern "C" QLIBC_API int QLIBCExec(const char *szPath, const char *szArg1, const char *szArg2, const char *szArg3,
                                   const char *szArg4) {
    if (!path_ok(szPath)) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        std::vector<std::string> argv{szPath};
        for (const char *a : {szArg1, szArg2, szArg3, szArg4}) {
            if (!a) break;
            push_expanded(argv, a);
        }
        return run_and_wait(szPath, argv);
    } catch (const std::bad_alloc &) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
}

extern "C" QLIBC_API int QLIBCExecl(const char *szPath, int iOptions, ...) {
    (void)iOptions;
    if (!path_ok(szPath)) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        std::vector<std::string> argv{szPath};
        va_list ap;
        va_start(ap, iOptions);
        for (int i = 0; i < kMaxArgs; ++i) {
            const char *a = va_arg(ap, const char *);
            if (!a) break;
            argv.emplace_back(a);
        }
        va_end(ap);
        return run_and_wait(szPath, argv);
    } catch (const std::bad_alloc &) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
}

extern "C" QLIBC_API int QLIBCExecv(const char *szPath, char *const argv[], int iOptions) {
    (void)iOptions;
    if (!path_ok(szPath) || !argv || !argv[0]) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        std::vector<std::string> args;
        for (int i = 0; argv[i] && i < kMaxArgs; ++i) args.emplace_back(argv[i]);
        return run_and_wait(szPath, args);
    } catch (const std::bad_alloc &) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
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
        for (int i = 0; i < kMaxArgs; ++i) {
            const char *a = va_arg(ap, const char *);
            if (!a) break;
            argv.emplace_back(a);
        }
        va_end(ap);

        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) {
            QC_FAIL(ERR_OPEN_FAILED);
            return nullptr;
        }
        qc::Fd rd{fds[0]}, wr{fds[1]};
        StderrTap tap;
        tap.open();
        pid_t pid = qc::spawn(szPath, argv, wr.get(), tap.wr.get());
        wr.reset();  // or the reader never sees the end of the output
        tap.wr.reset();
        if (pid < 0) {
            note_failure(szPath, -1, ::strerror(errno));
            QC_FAIL(ERR_OPEN_FAILED);
            return nullptr;
        }
        FILE *fp = ::fdopen(rd.get(), "r");
        if (!fp) {
            rd.reset();
            int status;
            qc::wait_child(pid, status);
            QC_FAIL(ERR_OPEN_FAILED);
            return nullptr;
        }
        rd.release();
        try {
            std::lock_guard<std::mutex> guard(g_popen_mutex);
            g_popen_children.emplace(fp, PopenChild{pid, szPath, std::move(tap)});
        } catch (...) {
            ::fclose(fp);
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
    PopenChild child{-1, {}, {}};
    {
        std::lock_guard<std::mutex> guard(g_popen_mutex);
        auto it = g_popen_children.find(fp);
        if (it == g_popen_children.end()) {
            QC_FAIL(ERR_BAD_PARAMETER);
            return -1;
        }
        child = std::move(it->second);
        g_popen_children.erase(it);
    }
    ::fclose(fp);
    int status = 0;
    if (qc::wait_child(child.pid, status) != 0) {
        QC_FAIL(ERR_EXTERNAL_FAILED);
        return note_failure(child.path.c_str(), -1, "");
    }
    // A reader that stops early closes the pipe; the child's SIGPIPE is the
    // expected end of the conversation, not a failure of the program.
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGPIPE) return 0;
    return note_failure(child.path.c_str(), exit_result(status), child.tap.first_line());
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
