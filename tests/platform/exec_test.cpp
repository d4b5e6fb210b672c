// Running programs, process checks and service start.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "qoracore.h"
#include "qorasdk.h"
#include "qp_test.hpp"

namespace {

std::string child() { return qpt::bin_path("qp-platform-child"); }

std::string slurp(FILE *fp) {
    std::string out;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, fp)) > 0;) out.append(buf, n);
    return out;
}

// Runs the helper through QLIBCPopen and returns its output; status via *rc.
std::string popen_child(const char *mode, const char *arg = nullptr, int *rc = nullptr) {
    FILE *fp = QLIBCPopen(child().c_str(), "r", mode, arg, nullptr);
    if (!fp) return "<no stream>";
    std::string out = slurp(fp);
    int r = QLIBCPclose(fp);
    if (rc) *rc = r;
    return out;
}

TEST(Exec, StatusAndArgumentsAsGiven) {
    const std::string c = child(), dir = "/tmp/platform-glob", out = "/tmp/platform-glob-args";
    // An exit status is an answer and leaves the error slot alone; a kill is a failure.
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(QLIBCExec(c.c_str(), "exit", "3", nullptr, nullptr), 3);
    EXPECT_EQ(QLIBCErrGet(), 0u);
    EXPECT_LT(QLIBCExec(c.c_str(), "kill", "9", nullptr, nullptr), 0);
    EXPECT_EQ(QLIBCErrGet(), ERR_EXTERNAL_FAILED);
    QLIBCErrSetEx(0, "", 0);
    EXPECT_LT(QLIBCExec("bin/true", nullptr, nullptr, nullptr, nullptr), 0);  // not absolute
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
    QLIBCErrSetEx(0, "", 0);
    EXPECT_LT(QLIBCExec("/nonexistent/program", nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_NE(QLIBCErrGet(), 0u);

    for (const char *name : {"b.txt", "a.txt", "c.log"}) qpt::write_file(dir + "/" + name, "x");
    const std::string txt = dir + "/*.txt", head = c + "\nargsto\n" + out + "\n";
    auto args = [&](int rc) { return rc == 0 ? qpt::read_file(out) : "status " + std::to_string(rc); };
    // Every runner passes its arguments as they are, wildcards too (a
    // matching file list must never stand in for a caller's name), and
    // QLIBCExec takes the leading arguments up to the first NULL.
    EXPECT_EQ(args(QLIBCExec(c.c_str(), "argsto", out.c_str(), txt.c_str(), nullptr)), head + txt + "\n");
    EXPECT_EQ(args(QLIBCExec(c.c_str(), "argsto", out.c_str(), nullptr, "ignored")), head);
    // Execv's argv[0] is passed as given too.
    EXPECT_EQ(args(QLIBCExecl(c.c_str(), 0xBB, "argsto", out.c_str(), txt.c_str(), "a b", "", nullptr)),
              head + txt + "\na b\n\n");
    char *const argv[] = {const_cast<char *>("/custom/argv0"), const_cast<char *>("argsto"),
                          const_cast<char *>(out.c_str()), const_cast<char *>("$HOME;*"), nullptr};
    EXPECT_EQ(args(QLIBCExecv(c.c_str(), argv, 1)), "/custom/argv0\nargsto\n" + out + "\n$HOME;*\n");
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
    int rc = 0;
    EXPECT_EQ(popen_child("exit", "4", &rc), "out\n");
    EXPECT_EQ(rc, 4);

    // A reader that has what it wants closes early; the writer's SIGPIPE is no failure.
    fp = QLIBCPopen(c.c_str(), "r", "yes", nullptr);
    ASSERT_NE(fp, nullptr);
    char line[16];
    EXPECT_STREQ(fgets(line, sizeof line, fp), "y\n");
    EXPECT_EQ(QLIBCPclose(fp), 0);

    FILE *foreign = fopen("/dev/null", "r");
    EXPECT_LT(QLIBCPclose(foreign), 0);
    fclose(foreign);
    EXPECT_EQ(qpt::open_fd_count(), fds_before);
}

TEST(Exec, ChildrenStartClean) {
    // Hold everything the library keeps open (both kinds of lock and a
    // stream) and a descriptor the caller left inheritable: none of them,
    // nothing above 2, reaches the child.
    ASSERT_EQ(QLIBCFileLock(LOCK_USBIDMAP | LOCK_MODE_EX_WAIT, 1), 0);
    int lock_fd = -1;
    ASSERT_EQ(QLIBCFileLockByFile("/run/qorasdk/lock/platform-exec", 1, &lock_fd), 1);
    FILE *held = QLIBCPopen(child().c_str(), "r", "yes", nullptr);
    ASSERT_NE(held, nullptr);
    const int inheritable = open("/dev/zero", O_RDONLY);
    ASSERT_GE(inheritable, 0);
    int std_fds = 0;
    std::istringstream fds(popen_child("fds"));
    for (std::string l; std::getline(fds, l);) {
        const int fd = atoi(l.c_str());
        const std::string target = l.substr(l.find(' ') + 1);
        if (fd == 0 || fd == 2) std_fds += target == "/dev/null";
        else if (fd == 1) std_fds += target.rfind("pipe:", 0) == 0;
        else ADD_FAILURE() << "leaked into the child: " << l;
    }
    EXPECT_EQ(std_fds, 3) << fds.str();  // stdin and stderr on /dev/null, stdout the pipe
    close(inheritable);
    EXPECT_EQ(QLIBCPclose(held), 0);
    close(lock_fd);
    EXPECT_EQ(QLIBCFileUnlock(LOCK_USBIDMAP), 0);

    // Locale settings of the caller would translate tool output: the child runs in C.
    setenv("LANG", "de_DE.UTF-8", 1);
    setenv("QP_PLATFORM_MARK", "kept", 1);
    const std::string env = "\n" + popen_child("env");
    unsetenv("LANG");
    unsetenv("QP_PLATFORM_MARK");
    for (const char *kept : {"\nLC_ALL=C\n", "\nQP_PLATFORM_MARK=kept\n"}) EXPECT_NE(env.find(kept), env.npos) << env;
    EXPECT_EQ(env.find("\nLANG="), env.npos) << env;

    // Blocked and ignored signals of the caller do not reach the child.
    sigset_t block, old;
    sigemptyset(&block);
    sigaddset(&block, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &block, &old);
    auto old_pipe = signal(SIGPIPE, SIG_IGN);
    const std::string sig = popen_child("sig");
    signal(SIGPIPE, old_pipe);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    unsigned long long blocked = ~0ull, ignored = ~0ull;
    ASSERT_EQ(sscanf(sig.c_str(), "SigBlk: %llx SigIgn: %llx", &blocked, &ignored), 2) << sig;
    // glibc keeps signals 32 and 33 for itself; no program can set them.
    EXPECT_EQ((blocked | ignored) & ~(3ull << 31), 0u) << sig;
}

TEST(Process, IsProcAliveSeesLivingProcessesByExactName) {
    // The helper's name is longer than the 15 bytes the kernel keeps.
    pid_t pid = qpt::start({child(), "sleep"});
    EXPECT_TRUE(qpt::wait_until([] { return QLIBCIsProcAlive("qp-platform-child") != 0; }));
    QLIBCErrSetEx(0, "", 0);
    for (const char *other : {"qp-platform", "qp-platform-child-2"}) EXPECT_EQ(QLIBCIsProcAlive(other), 0) << other;
    EXPECT_EQ(QLIBCErrGet(), 0u);  // "not running" is an answer, whatever the scan met
    EXPECT_EQ(QLIBCIsProcAlive(""), 0);
    // A process that died but was not reaped yet no longer runs.
    kill(pid, SIGKILL);
    const std::string stat = "/proc/" + std::to_string(pid) + "/stat";
    EXPECT_TRUE(qpt::wait_until([&] { return qpt::read_file(stat).find(") Z ") != std::string::npos; }));
    EXPECT_EQ(QLIBCIsProcAlive("qp-platform-child"), 0);
    qpt::stop(pid);
}

TEST(Service, StartSpawnsOnceAndWaitsForTheSocket) {
    if (!qpt::in_sandbox()) GTEST_SKIP() << "replaces /usr/sbin/cupsd";
    qpt::write_file("/usr/sbin/cupsd", qpt::read_file(child()), 0755);
    ASSERT_EQ(QLIBServiceStart("cupsd", 0), 0);
    EXPECT_EQ(QLIBServiceIsRunning("cupsd"), 1);
    EXPECT_EQ(QLIBServiceStart("cupsd", 0), 0);
    EXPECT_EQ(qpt::read_file("/run/qp-fake-cupsd.count"), "start\n");  // started once

    // Stop the stand-in (it put itself in the background), then make it fail to start.
    for (const auto &e : std::filesystem::directory_iterator("/proc"))
        if (qpt::read_file(e.path().string() + "/comm") == "cupsd\n") kill(atoi(e.path().filename().c_str()), SIGKILL);
    ASSERT_TRUE(qpt::wait_until([] { return QLIBServiceIsRunning("cupsd") == 0; }));
    qpt::write_file("/run/qp-fake-cupsd.fail", "");
    QLIBCErrSetEx(0, "", 0);
    EXPECT_LT(QLIBServiceStart("cupsd", 0), 0);
    EXPECT_NE(QLIBCErrGet(), 0u);
}

}  // namespace
