// Files, programs and paths for the tests.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "qp_test.hpp"

extern char **environ;

namespace qpt {

bool in_sandbox() {
    const char *v = getenv("QP_SANDBOX");
    return v && strcmp(v, "1") == 0;
}

namespace {

// Test programs write the appliance's fixed paths, start daemons and mount
// file systems: outside the sandbox they would do so on this machine.
struct RefuseToRunOutsideTheSandbox {
    RefuseToRunOutsideTheSandbox() {
        if (in_sandbox()) return;
        fprintf(stderr, "this program changes the appliance's files: run it as qp-sandbox -- PROGRAM\n");
        _exit(2);
    }
} refuse_outside;

}  // namespace

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
        std::string part = path.substr(0, pos);
        if (!part.empty() && mkdir(part.c_str(), mode) != 0 && errno != EEXIST)
            ADD_FAILURE() << "mkdir " << part << ": " << strerror(errno);
    }
}

void write_file(const std::string &path, std::string_view content, mode_t mode) {
    size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) mkdirs(path.substr(0, slash));
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) {
        ADD_FAILURE() << "open " << path << ": " << strerror(errno);
        return;
    }
    fchmod(fd, mode);
    for (size_t off = 0; off < content.size();) {
        ssize_t n = write(fd, content.data() + off, content.size() - off);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ADD_FAILURE() << "write " << path << ": " << strerror(errno);
            break;
        }
        off += static_cast<size_t>(n);
    }
    close(fd);
}

bool exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

void remove_file(const std::string &path) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) ADD_FAILURE() << "unlink " << path << ": " << strerror(errno);
}

int open_fd_count() {
    DIR *d = opendir("/proc/self/fd");
    if (!d) return -1;
    int n = 0;
    while (struct dirent *e = readdir(d))
        if (e->d_name[0] != '.') ++n;
    closedir(d);
    return n - 1;  // the directory's own descriptor
}

// ---- programs ----------------------------------------------------------------
namespace {

int wait_status(pid_t pid) {
    int status;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) return -1;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

// Spawn attributes giving the child default signal handling and an empty
// mask, whatever the test process set up.
struct SpawnAttr {
    posix_spawnattr_t attr;
    explicit SpawnAttr(bool own_group) {
        posix_spawnattr_init(&attr);
        sigset_t none, all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attr, &none);
        posix_spawnattr_setsigdefault(&attr, &all);
        short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
        if (own_group) {
            flags |= POSIX_SPAWN_SETPGROUP;
            posix_spawnattr_setpgroup(&attr, 0);
        }
        posix_spawnattr_setflags(&attr, flags);
    }
    ~SpawnAttr() { posix_spawnattr_destroy(&attr); }
};

struct Argv {
    std::vector<char *> v;
    explicit Argv(const std::vector<std::string> &args) {
        for (const std::string &a : args) v.push_back(const_cast<char *>(a.c_str()));
        v.push_back(nullptr);
    }
};

}  // namespace

namespace {

// An anonymous file holding the text, at its start.
int memfile(std::string_view text) {
    const int fd = memfd_create("qp-run", MFD_CLOEXEC);
    if (fd >= 0 && (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) || lseek(fd, 0, SEEK_SET) != 0))
        ADD_FAILURE() << "memfd: " << strerror(errno);
    return fd;
}

std::string contents(int fd) {
    std::string out;
    char buf[65536];
    for (ssize_t n; (n = pread(fd, buf, sizeof buf, static_cast<off_t>(out.size()))) > 0;)
        out.append(buf, static_cast<size_t>(n));
    close(fd);
    return out;
}

}  // namespace

// The child's streams are anonymous files, so the call returns when the
// child exits, whatever it left running in the background.
RunResult run(const std::vector<std::string> &argv, std::string_view input) {
    RunResult r;
    const int in = memfile(input), out = memfile({}), err = memfile({});
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, in, 0);
    posix_spawn_file_actions_adddup2(&fa, out, 1);
    posix_spawn_file_actions_adddup2(&fa, err, 2);
    SpawnAttr attr(false);
    Argv args(argv);
    pid_t pid;
    const int rc = posix_spawn(&pid, args.v[0], &fa, &attr.attr, args.v.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    close(in);
    if (rc == 0) r.status = wait_status(pid);
    r.out = contents(out);
    r.err = rc == 0 ? contents(err) : (close(err), std::string("posix_spawn: ") + strerror(rc));
    return r;
}

pid_t start(const std::vector<std::string> &argv) {
    if (argv.empty()) return -1;
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    // Its own process group, so stop() also ends the programs it started.
    SpawnAttr attr(true);
    Argv args(argv);
    pid_t pid;
    int rc = posix_spawn(&pid, args.v[0], &fa, &attr.attr, args.v.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) {
        ADD_FAILURE() << "cannot start " << argv[0] << ": " << strerror(rc);
        return -1;
    }
    return pid;
}

void stop(pid_t pid, int sig) {
    if (pid <= 0) return;
    kill(-pid, sig);
    kill(pid, sig);
    // Give it a few seconds to go, then force it.
    bool gone = wait_until([&] { return waitpid(pid, nullptr, WNOHANG) != 0; }, 5000);
    if (!gone) {
        kill(-pid, SIGKILL);
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

std::string bin_path(std::string_view name) { return std::string(QP_BIN_DIR) + "/" + std::string(name); }

std::string source_path(std::string_view relative) {
    return std::string(QP_SOURCE_DIR) + "/" + std::string(relative);
}

}  // namespace qpt
