// Files, programs, paths and the syslog catcher's file for the tests.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <sstream>

#include <gtest/gtest.h>

#include "qp_test.hpp"

extern char **environ;

namespace qpt {

bool in_sandbox() { return getenv("QP_SANDBOX") && strcmp(getenv("QP_SANDBOX"), "1") == 0; }

// Test programs write the appliance's fixed paths, start daemons and mount
// file systems: outside the sandbox they would do so on this machine.
[[maybe_unused]] static const bool refuse_outside = in_sandbox() || []() -> bool {
    fputs("this program changes the appliance's files: run it as qp-sandbox -- PROGRAM\n", stderr);
    _exit(2);
}();

// ---- files ------------------------------------------------------------------

std::string read_file(const std::string &path) {
    std::string out;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    char buf[65536];
    for (ssize_t n; fd >= 0 && ((n = read(fd, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR));)
        if (n > 0) out.append(buf, static_cast<size_t>(n));
    if (fd >= 0) close(fd);
    return out;
}

void mkdirs(const std::string &path, mode_t mode) {
    for (size_t pos = 0; pos != std::string::npos;) {
        pos = path.find('/', pos + 1);
        const std::string part = path.substr(0, pos);
        if (mkdir(part.c_str(), mode) != 0 && errno != EEXIST)
            ADD_FAILURE() << "mkdir " << part << ": " << strerror(errno);
    }
}

void write_file(const std::string &path, std::string_view content, mode_t mode) {
    const size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) mkdirs(path.substr(0, slash));
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    // The mode is set as given, whatever the umask or an older file had.
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0 || ((st.st_mode & 07777) != mode && fchmod(fd, mode) != 0) ||
        write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size()))
        ADD_FAILURE() << "write " << path << ": " << strerror(errno);
    if (fd >= 0) close(fd);
}

bool exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

void remove_file(const std::string &path) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) ADD_FAILURE() << "unlink " << path << ": " << strerror(errno);
}

int open_fd_count() {
    // Less the descriptor the listing itself holds.
    const auto fds = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<int>(std::distance(begin(fds), end(fds))) - 1;
}

// ---- programs ----------------------------------------------------------------
namespace {

// Spawns argv[0] with default signal handling and an empty mask, whatever
// the test process set up; -1 and a test failure when it cannot.
pid_t spawn(const std::vector<std::string> &argv, const posix_spawn_file_actions_t *fa, bool own_group) {
    std::vector<char *> args;
    for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(&attr, static_cast<short>(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                                       (own_group ? POSIX_SPAWN_SETPGROUP : 0)));
    pid_t pid = -1;
    const int rc = argv.empty() ? EINVAL : posix_spawn(&pid, args[0], fa, &attr, args.data(), environ);
    posix_spawnattr_destroy(&attr);
    return rc == 0 ? pid : (errno = rc, -1);
}

// An anonymous file holding the text, at its start.
int memfile(std::string_view text) {
    const int fd = memfd_create("qp-run", MFD_CLOEXEC);
    if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) || lseek(fd, 0, SEEK_SET) != 0)
        ADD_FAILURE() << "memfd: " << strerror(errno);
    return fd;
}

// Closes fd after reading it whole from its start (a new opening of it).
std::string contents(int fd) {
    const std::string out = read_file("/proc/self/fd/" + std::to_string(fd));
    close(fd);
    return out;
}

}  // namespace

// The child's streams are anonymous files, so the call returns when the
// child exits, whatever it left running in the background.
RunResult run(const std::vector<std::string> &argv, std::string_view input) {
    RunResult r;
    const int fds[3] = {memfile(input), memfile({}), memfile({})};
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    for (int i = 0; i < 3; ++i) posix_spawn_file_actions_adddup2(&fa, fds[i], i);
    const pid_t pid = spawn(argv, &fa, false);
    const std::string why = strerror(errno);
    posix_spawn_file_actions_destroy(&fa);
    close(fds[0]);
    int status = 0;
    while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (pid > 0) r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.out = contents(fds[1]);
    r.err = pid > 0 ? contents(fds[2]) : (close(fds[2]), "posix_spawn: " + why);
    return r;
}

pid_t start(const std::vector<std::string> &argv) {
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    const pid_t pid = spawn(argv, &fa, true);
    posix_spawn_file_actions_destroy(&fa);
    if (pid < 0) ADD_FAILURE() << "cannot start " << (argv.empty() ? "" : argv[0]) << ": " << strerror(errno);
    return pid;
}

void stop(pid_t pid, int sig) {
    if (pid <= 0) return;
    // The whole group, so what the program started goes too; forced after 5 s.
    kill(-pid, sig);
    kill(pid, sig);
    if (!wait_until([&] { return waitpid(pid, nullptr, WNOHANG) != 0; })) {
        kill(-pid, SIGKILL);
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

std::string bin_path(std::string_view name) { return std::string(QP_BIN_DIR) + "/" + std::string(name); }

std::string source_path(std::string_view relative) { return std::string(QP_SOURCE_DIR) + "/" + std::string(relative); }

// ---- syslog ------------------------------------------------------------------
namespace {

constexpr std::string_view kMarker = "qpt-log-flush ";

// Sends a unique marker through syslog(3) and waits until the catcher has
// written it: every message sent before it is then in the file too.
void flush() {
    static std::atomic<unsigned> counter{0};
    const std::string marker = std::string(kMarker) + std::to_string(getpid()) + "-" + std::to_string(counter++);
    // The marker goes out at LOG_DEBUG even when a test narrowed the mask.
    const int mask = setlogmask(0);
    setlogmask(mask | LOG_MASK(LOG_DEBUG));
    syslog(LOG_DEBUG, "%s", marker.c_str());
    setlogmask(mask);
    if (!wait_until([&] { return read_file(kSyslogFile).find(marker) != std::string::npos; }))
        ADD_FAILURE() << "syslog catcher did not deliver " << marker << " (not in the sandbox?)";
}

}  // namespace

void LogCapture::reset() {
    flush();
    start_ = static_cast<off_t>(read_file(kSyslogFile).size());
}

// Each line is "<severity> text"; the markers are left out.
std::vector<LogLine> LogCapture::lines() {
    flush();
    std::vector<LogLine> result;
    const std::string all = read_file(kSyslogFile);
    std::istringstream in(all.substr(std::min(all.size(), static_cast<size_t>(start_))));
    for (std::string raw; std::getline(in, raw);) {
        const size_t sp = raw.find(' ');
        if (sp != std::string::npos && sp > 0 && raw.compare(sp + 1, kMarker.size(), kMarker) != 0)
            result.push_back({atoi(raw.c_str()), raw.substr(sp + 1)});
    }
    return result;
}

// Severity -1: any.
size_t LogCapture::count(int severity, std::string_view text) {
    size_t n = 0;
    for (const LogLine &l : lines())
        n += (severity < 0 || l.severity == severity) && l.text.find(text) != std::string::npos;
    return n;
}

std::string LogCapture::dump() {
    std::string out;
    for (const LogLine &l : lines()) out += std::to_string(l.severity) + " " + l.text + "\n";
    return out;
}

}  // namespace qpt
