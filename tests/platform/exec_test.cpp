// Running programs and process checks, with standard tools as the children.
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "qoracore.h"
#include "qp_test.hpp"

namespace {

constexpr const char *kSh = "/bin/sh";

std::string slurp(FILE *fp) {
    std::string out;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, fp)) > 0;) out.append(buf, n);
    return out;
}

// Output of a program run through QLIBCPopen (at most three arguments).
std::string popen_out(const char *path, const char *a = nullptr, const char *b = nullptr, const char *c = nullptr) {
    FILE *fp = QLIBCPopen(path, "r", a, b, c, nullptr);
    if (!fp) return "<no stream>";
    std::string out = slurp(fp);
    QLIBCPclose(fp);
    return out;
}

std::string take_failure() {
    char path[256], line[64];
    int result = 0;
    if (QLIBCExecTakeFailure(path, sizeof path, &result, line, sizeof line) != 1) return "<none>";
    return std::string(path) + "|" + std::to_string(result) + "|" + line;
}

TEST(Exec, StatusFailuresAndArgumentsAsGiven) {
    // An exit status is an answer and leaves the error slot alone; a signal
    // is a failure that says which.
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(QLIBCExec(kSh, "-c", "exit 3", nullptr, nullptr), 3);
    EXPECT_EQ(QLIBCErrGet(), 0u);
    EXPECT_EQ(QLIBCExec(kSh, "-c", "kill -9 $$", nullptr, nullptr), -(128 + 9));
    EXPECT_EQ(QLIBCErrGet(), ERR_EXTERNAL_FAILED);
    QLIBCErrSetEx(0, "", 0);
    EXPECT_LT(QLIBCExec("bin/true", nullptr, nullptr, nullptr, nullptr), 0);  // not absolute
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
    // The last failed run is kept with its first stderr line until read.
    EXPECT_LT(QLIBCExec("/nonexistent/program", nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(take_failure(), "/nonexistent/program|-1|No such file or directory");
    EXPECT_EQ(QLIBCExecl(kSh, 0, "-c", "printf '\\nwhy\\001 it failed\\nsecond\\n' >&2; exit 3", nullptr), 3);
    EXPECT_EQ(QLIBCExecl(kSh, 0, "-c", "echo a warning of a run that succeeded >&2", nullptr), 0);
    EXPECT_EQ(take_failure(), "/bin/sh|3|why  it failed");
    EXPECT_EQ(take_failure(), "<none>");

    // Every runner passes its arguments as they are, wildcards too (a
    // matching file list must never stand in for a caller's name), argv[0]
    // included; QLIBCExec stops at the first NULL.  The shell records the
    // command line it was given (the ":" keeps it from replacing itself).
    const std::string dir = "/tmp/platform-glob", out = dir + "/args", txt = dir + "/*.txt";
    for (const char *name : {"b.txt", "a.txt"}) qpt::write_file(dir + "/" + name, "x");
    const std::string rec = "tr '\\0' '\\n' </proc/$$/cmdline >" + out + "; :", head = "/bin/sh\n-c\n" + rec + "\n";
    auto args = [&](int rc) { return rc == 0 ? qpt::read_file(out) : "status " + std::to_string(rc); };
    EXPECT_EQ(args(QLIBCExec(kSh, "-c", rec.c_str(), txt.c_str(), nullptr)), head + txt + "\n");
    EXPECT_EQ(args(QLIBCExec(kSh, "-c", rec.c_str(), nullptr, "ignored")), head);
    EXPECT_EQ(args(QLIBCExecl(kSh, 0, "-c", rec.c_str(), txt.c_str(), "a b", "", nullptr)), head + txt + "\na b\n\n");
    char *const argv[] = {const_cast<char *>("/custom/argv0"), const_cast<char *>("-c"), const_cast<char *>(rec.c_str()),
                          const_cast<char *>("$HOME;*"), nullptr};
    EXPECT_EQ(args(QLIBCExecv(kSh, argv, 0)), "/custom/argv0\n-c\n" + rec + "\n$HOME;*\n");
}

TEST(Popen, OutputStatusAndEarlyClose) {
    const int fds_before = qpt::open_fd_count();
    FILE *fp = QLIBCPopen(kSh, "r", "-c", "echo out; exit 4", nullptr);
    ASSERT_NE(fp, nullptr);
    EXPECT_EQ(slurp(fp), "out\n");
    EXPECT_EQ(QLIBCPclose(fp), 4);
    EXPECT_EQ(take_failure(), "/bin/sh|4|");

    // A reader that has what it wants closes early; the writer's SIGPIPE is no failure.
    fp = QLIBCPopen("/usr/bin/yes", "r", nullptr);
    ASSERT_NE(fp, nullptr);
    char line[16];
    EXPECT_STREQ(fgets(line, sizeof line, fp), "y\n");
    EXPECT_EQ(QLIBCPclose(fp), 0);
    EXPECT_EQ(qpt::open_fd_count(), fds_before);
}

TEST(Exec, ChildrenStartClean) {
    // The shell lists its own descriptors (the ":" keeps it from replacing
    // itself with ls): stdin on /dev/null, stdout and stderr pipes, nothing
    // above 2 while the library holds a lock and a stream of its own.
    ASSERT_EQ(QLIBCFileLock(LOCK_USBIDMAP | LOCK_MODE_EX_WAIT, 1), 0);
    FILE *held = QLIBCPopen("/usr/bin/yes", "r", nullptr);
    ASSERT_NE(held, nullptr);
    const std::string fds = popen_out(kSh, "-c", "ls /proc/$$/fd; readlink /proc/$$/fd/0 /proc/$$/fd/2; :");
    EXPECT_EQ(fds.substr(0, fds.find("pipe:")), "0\n1\n2\n/dev/null\n") << fds;
    EXPECT_EQ(QLIBCPclose(held), 0);
    EXPECT_EQ(QLIBCFileUnlock(LOCK_USBIDMAP), 0);

    // Locale settings of the caller would translate tool output: the child runs in C.
    setenv("LANG", "de_DE.UTF-8", 1);
    setenv("QP_PLATFORM_MARK", "kept", 1);
    const std::string env = "\n" + popen_out("/usr/bin/env");
    unsetenv("LANG");
    unsetenv("QP_PLATFORM_MARK");
    for (const char *kept : {"\nLC_ALL=C\n", "\nQP_PLATFORM_MARK=kept\n"}) EXPECT_NE(env.find(kept), env.npos) << env;
    EXPECT_EQ(env.find("\nLANG="), env.npos) << env;

}

// Names are matched whole, beyond the 15 bytes the kernel keeps.
TEST(Process, IsProcAliveMatchesWholeNames) {
    const std::string sleeper = "/tmp/platform-sleeper";
    qpt::write_file(sleeper, qpt::read_file("/bin/sleep"), 0755);
    const pid_t pid = qpt::start({sleeper, "60"});
    EXPECT_TRUE(qpt::wait_until([] { return QLIBCIsProcAlive("platform-sleeper") != 0; }));
    for (const char *other : {"platform-sleep", "platform-sleeper-2", ""}) EXPECT_EQ(QLIBCIsProcAlive(other), 0) << other;
    qpt::stop(pid);
}

}  // namespace
