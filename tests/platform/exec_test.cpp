// Running programs, process checks and service start.
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <errno.h>
#include <gtest/gtest.h>

#include "qoracore.h"
#include "qorasdk.h"
#include "qp_test.hpp"

namespace {

std::string child() { return qpt::bin_path("qp-platform-child"); }

std::string slurp(FILE *fp) {
    std::string out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, fp)) > 0) out.append(buf, n);
    return out;
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> v;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) v.push_back(l);
    return v;
}

// Runs the helper through QLIBCPopen and returns its output; status via *rc.
std::string popen_child(const char *mode, int *rc = nullptr) {
    std::string path = child();
    FILE *fp = QLIBCPopen(path.c_str(), "r", mode, nullptr);
    if (!fp) return "<no stream>";
    std::string out = slurp(fp);
    int r = QLIBCPclose(fp);
    if (rc) *rc = r;
    return out;
}

TEST(Exec, ExitStatusSignalsAndMissingPrograms) {
    const std::string c = child();
    EXPECT_EQ(QLIBCExec(c.c_str(), "exit", "0", nullptr, nullptr), 0);
    EXPECT_EQ(QLIBCExec(c.c_str(), "exit", "3", nullptr, nullptr), 3);
    EXPECT_LT(QLIBCExec(c.c_str(), "kill", "9", nullptr, nullptr), 0);
    EXPECT_LT(QLIBCExec(c.c_str(), "kill", "15", nullptr, nullptr), 0);
    EXPECT_EQ(QLIBCExecl(c.c_str(), 0xBB, "exit", "5", nullptr), 5);
    char *const argv[] = {const_cast<char *>(c.c_str()), const_cast<char *>("exit"), const_cast<char *>("7"), nullptr};
    EXPECT_EQ(QLIBCExecv(c.c_str(), argv, 1), 7);

    QLIBCErrSetEx(0, "", 0);
    EXPECT_LT(QLIBCExec("/nonexistent/program", nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_NE(QLIBCErrGet(), 0u);
    QLIBCErrSetEx(0, "", 0);
    EXPECT_LT(QLIBCExec("bin/true", nullptr, nullptr, nullptr, nullptr), 0);  // not absolute
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
    EXPECT_LT(QLIBCExecl(nullptr, 0xBB, nullptr), 0);
}

TEST(Exec, ArgumentsAndWildcards) {
    const std::string c = child();
    const std::string dir = "/tmp/platform-glob";
    const std::string out = "/tmp/platform-glob-args";
    for (const char *name : {"b.txt", "a.txt", "c.log", "noext"}) qpt::write_file(dir + "/" + name, "x");

    ASSERT_EQ(QLIBCExec(c.c_str(), "argsto", out.c_str(), (dir + "/*.txt").c_str(), nullptr), 0);
    EXPECT_EQ(qpt::read_file(out), c + "\nargsto\n" + out + "\n" + dir + "/a.txt\n" + dir + "/b.txt\n");
    ASSERT_EQ(QLIBCExec(c.c_str(), "argsto", out.c_str(), (dir + "/*.none").c_str(), nullptr), 0);
    EXPECT_EQ(qpt::read_file(out), c + "\nargsto\n" + out + "\n" + dir + "/*.none\n");
    // Execl and Execv pass every argument as it is; Execv's argv[0] too.
    ASSERT_EQ(QLIBCExecl(c.c_str(), 0xBB, "argsto", out.c_str(), (dir + "/*.txt").c_str(), "a b", "", nullptr), 0);
    EXPECT_EQ(qpt::read_file(out), c + "\nargsto\n" + out + "\n" + dir + "/*.txt\na b\n\n");
    char *const argv[] = {const_cast<char *>("/custom/argv0"), const_cast<char *>("argsto"),
                          const_cast<char *>(out.c_str()), const_cast<char *>("$HOME;*"), nullptr};
    ASSERT_EQ(QLIBCExecv(c.c_str(), argv, 1), 0);
    EXPECT_EQ(qpt::read_file(out), "/custom/argv0\nargsto\n" + out + "\n$HOME;*\n");
    // QLIBCExec passes the leading arguments up to the first NULL.
    ASSERT_EQ(QLIBCExec(c.c_str(), "argsto", out.c_str(), nullptr, "ignored"), 0);
    EXPECT_EQ(qpt::read_file(out), c + "\nargsto\n" + out + "\n");

    // The spool clean-up: every name with a dot goes, the rest stays.
    ASSERT_EQ(QLIBCExec("/bin/rm", (dir + "/*.*").c_str(), nullptr, nullptr, nullptr), 0);
    EXPECT_FALSE(qpt::exists(dir + "/a.txt"));
    EXPECT_FALSE(qpt::exists(dir + "/c.log"));
    EXPECT_TRUE(qpt::exists(dir + "/noext"));
}

TEST(Popen, OutputStatusAndEarlyClose) {
    const int fds_before = qpt::open_fd_count();
    const std::string c = child();
    // Readers of the stream rely on errno to tell an interrupted read from
    // the end: a successful start must not leave a stale value behind.
    errno = EDOM;
    FILE *fp = QLIBCPopen(c.c_str(), "r", "args", "a b", "", nullptr);
    ASSERT_NE(fp, nullptr);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(slurp(fp), c + "\nargs\na b\n\n");
    EXPECT_EQ(QLIBCPclose(fp), 0);

    fp = QLIBCPopen(c.c_str(), "r", "exit", "4", nullptr);
    ASSERT_NE(fp, nullptr);
    EXPECT_EQ(slurp(fp), "out\n");
    EXPECT_EQ(QLIBCPclose(fp), 4);

    int rc = 0;
    popen_child("kill", &rc);  // SIGKILL by default
    EXPECT_LT(rc, 0);

    // A reader that has what it wants closes early; the writer's SIGPIPE is no failure.
    fp = QLIBCPopen(c.c_str(), "r", "yes", nullptr);
    ASSERT_NE(fp, nullptr);
    char line[16];
    ASSERT_NE(fgets(line, sizeof line, fp), nullptr);
    EXPECT_STREQ(line, "y\n");
    EXPECT_EQ(QLIBCPclose(fp), 0);

    EXPECT_EQ(QLIBCPopen("/nonexistent/program", "r", nullptr), nullptr);
    EXPECT_EQ(QLIBCPopen(c.c_str(), "w", nullptr), nullptr);
    FILE *foreign = fopen("/dev/null", "r");
    EXPECT_LT(QLIBCPclose(foreign), 0);
    fclose(foreign);
    EXPECT_EQ(qpt::open_fd_count(), fds_before);
}

// Descriptors of this process that a child may inherit (not close-on-exec).
std::set<int> inheritable_fds() {
    std::set<int> fds;
    DIR *d = opendir("/proc/self/fd");
    while (dirent *e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        int fd = atoi(e->d_name);
        if (fd == dirfd(d)) continue;
        int flags = fcntl(fd, F_GETFD);
        if (flags >= 0 && !(flags & FD_CLOEXEC)) fds.insert(fd);
    }
    closedir(d);
    return fds;
}

unsigned long long sig_mask(const std::string &status, const char *field) {
    size_t at = status.find(field);
    return at == std::string::npos ? ~0ull : std::stoull(status.substr(at + strlen(field)), nullptr, 16);
}

TEST(Exec, ChildrenStartClean) {
    // Hold everything the library keeps open: both kinds of lock and a stream.
    ASSERT_EQ(QLIBCFileLock(LOCK_USBIDMAP | LOCK_MODE_EX_WAIT, 1), 0);
    int lock_fd = -1;
    ASSERT_EQ(QLIBCFileLockByFile("/tmp/platform-exec.lock", 1, &lock_fd), 1);
    const std::string c = child();
    FILE *held = QLIBCPopen(c.c_str(), "r", "yes", nullptr);
    ASSERT_NE(held, nullptr);

    std::set<int> allowed = inheritable_fds();
    int rc = -1;
    std::vector<std::string> fds = lines_of(popen_child("fds", &rc));
    EXPECT_EQ(rc, 0);
    std::set<int> seen;
    for (const auto &l : fds) {
        int fd = atoi(l.c_str());
        seen.insert(fd);
        if (fd > 2) {
            EXPECT_TRUE(allowed.count(fd)) << "leaked into the child: " << l;
        }
    }
    EXPECT_TRUE(seen.count(0) && seen.count(1) && seen.count(2));
    EXPECT_FALSE(seen.count(lock_fd));
    EXPECT_FALSE(seen.count(fileno(held)));
    for (const auto &l : fds) {
        if (l.rfind("0 ", 0) == 0 || l.rfind("2 ", 0) == 0) {
            EXPECT_EQ(l.substr(2), "/dev/null");
        }
        if (l.rfind("1 ", 0) == 0) {
            EXPECT_EQ(l.substr(2, 5), "pipe:");
        }
    }
    EXPECT_EQ(popen_child("stdin"), "0\n");

    EXPECT_EQ(QLIBCPclose(held), 0);
    close(lock_fd);
    EXPECT_EQ(QLIBCFileUnlock(LOCK_USBIDMAP), 0);

    // Locale settings of the caller would translate tool output: the child runs in C.
    setenv("LANG", "de_DE.UTF-8", 1);
    setenv("LC_MESSAGES", "fr_FR.UTF-8", 1);
    setenv("QP_PLATFORM_MARK", "kept", 1);
    std::vector<std::string> env = lines_of(popen_child("env"));
    unsetenv("LANG");
    unsetenv("LC_MESSAGES");
    unsetenv("QP_PLATFORM_MARK");
    std::set<std::string> envset(env.begin(), env.end());
    EXPECT_TRUE(envset.count("LC_ALL=C"));
    EXPECT_TRUE(envset.count("QP_PLATFORM_MARK=kept"));
    for (const auto &e : env) {
        EXPECT_NE(e.rfind("LANG=", 0), 0u) << e;
        EXPECT_NE(e.rfind("LC_MESSAGES=", 0), 0u) << e;
    }

    // Blocked and ignored signals of the caller do not reach the child.
    sigset_t block, old;
    sigemptyset(&block);
    sigaddset(&block, SIGTERM);
    sigaddset(&block, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &block, &old);
    auto old_pipe = signal(SIGPIPE, SIG_IGN);
    auto old_usr2 = signal(SIGUSR2, SIG_IGN);
    std::string sig = popen_child("sig");
    signal(SIGPIPE, old_pipe);
    signal(SIGUSR2, old_usr2);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    // glibc keeps signals 32 and 33 for itself; no program can set them.
    const unsigned long long kGlibcInternal = 3ull << 31;
    EXPECT_EQ(sig_mask(sig, "SigBlk:") & ~kGlibcInternal, 0u) << sig;
    EXPECT_EQ(sig_mask(sig, "SigIgn:") & ~kGlibcInternal, 0u) << sig;
}

char proc_state(pid_t pid) {
    std::string stat = qpt::read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t close = stat.rfind(')');
    return close == std::string::npos || close + 2 >= stat.size() ? '?' : stat[close + 2];
}

TEST(Process, IsProcAliveSeesLivingProcessesByExactName) {
    // The helper's name is longer than the 15 bytes the kernel keeps.
    pid_t pid = qpt::start({child(), "sleep"});
    EXPECT_TRUE(qpt::wait_until([] { return QLIBCIsProcAlive("qp-platform-child") != 0; }));
    EXPECT_EQ(QLIBCIsProcAlive("qp-platform"), 0);
    EXPECT_EQ(QLIBCIsProcAlive("qp-platform-child-2"), 0);
    EXPECT_EQ(QLIBCIsProcAlive(""), 0);
    EXPECT_EQ(QLIBCIsProcAlive(nullptr), 0);

    // A process that died but was not reaped yet no longer runs.
    kill(pid, SIGKILL);
    EXPECT_TRUE(qpt::wait_until([&] { return proc_state(pid) == 'Z'; }));
    EXPECT_EQ(QLIBCIsProcAlive("qp-platform-child"), 0);
    qpt::stop(pid);

    EXPECT_EQ(QLIBServiceIsRunning("no such service"), 0);
    EXPECT_EQ(QLIBServiceIsRunning(nullptr), 0);
    EXPECT_LT(QLIBServiceStart("no such service", 0), 0);
}

void kill_named(const char *comm) {
    DIR *d = opendir("/proc");
    while (dirent *e = readdir(d)) {
        pid_t pid = atoi(e->d_name);
        if (pid <= 0) continue;
        std::string c = qpt::read_file("/proc/" + std::string(e->d_name) + "/comm");
        if (c == std::string(comm) + "\n") kill(pid, SIGKILL);
    }
    closedir(d);
}

TEST(Service, StartSpawnsOnceAndWaitsForTheSocket) {
    if (!qpt::in_sandbox()) GTEST_SKIP() << "replaces /usr/sbin/cupsd";
    qpt::write_file("/usr/sbin/cupsd", qpt::read_file(child()), 0755);
    qpt::remove_file("/run/qp-fake-cupsd.count");
    qpt::remove_file("/run/qp-fake-cupsd.fail");
    EXPECT_EQ(QLIBServiceIsRunning("cupsd"), 0);

    ASSERT_EQ(QLIBServiceStart("cupsd", 0), 0);
    EXPECT_EQ(QLIBServiceIsRunning("cupsd"), 1);
    EXPECT_TRUE(qpt::exists("/run/cups/cups.sock"));
    EXPECT_EQ(QLIBServiceStart("cupsd", 0), 0);
    EXPECT_EQ(qpt::read_file("/run/qp-fake-cupsd.count"), "start\n");  // started once

    kill_named("cupsd");
    ASSERT_TRUE(qpt::wait_until([] { return QLIBServiceIsRunning("cupsd") == 0; }));
    qpt::write_file("/run/qp-fake-cupsd.fail", "");
    QLIBCErrSetEx(0, "", 0);
    EXPECT_LT(QLIBServiceStart("cupsd", 0), 0);
    EXPECT_NE(QLIBCErrGet(), 0u);
}

}  // namespace
