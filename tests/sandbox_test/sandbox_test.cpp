// The sandbox seen from inside (namespaces, directories; the tests that
// count log lines show the syslog catcher at work), and nested runs of it:
// what survives a run (nothing), what comes back out (the exit status), and
// a set-up failure's reason.
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "qp_test.hpp"

namespace {

qpt::RunResult sandboxed(std::vector<std::string> args) {
    args.insert(args.begin(), qpt::bin_path("qp-sandbox"));
    return qpt::run(args);
}

TEST(Sandbox, IsPrivateNamespacesWithFreshSystemDirectories) {
    ASSERT_TRUE(qpt::in_sandbox());
    EXPECT_STREQ(getenv("DBUS_SYSTEM_BUS_ADDRESS"), "unix:path=/nonexistent");
    // The sandbox's init is PID 1 and this program its child.
    EXPECT_EQ(getppid(), 1);
    EXPECT_EQ(qpt::read_file("/proc/1/comm"), "qp-sandbox\n");
    EXPECT_EQ(qpt::run({"/usr/bin/stat", "-c", "%n %F", "/usr/qora/etc", "/run/qorasdk/lock", "/var/services/printer",
                        "/dev/null", "/dev/fuse", "/dev/log"})
                  .out,
              "/usr/qora/etc directory\n/run/qorasdk/lock directory\n/var/services/printer directory\n"
              "/dev/null character special file\n/dev/fuse character special file\n/dev/log socket\n");
    EXPECT_EQ(qpt::run({"/usr/bin/stat", "-c", "%a", "/tmp"}).out, "1777\n");
    // Only a loopback, as this namespace's own sysfs shows.
    EXPECT_EQ(qpt::run({"/bin/ls", "/sys/class/net"}).out, "lo\n");
}

// The outer sandbox's own files show through; the inner one's writes and
// processes do not outlive the run; the exit status comes back out, and a
// run that cannot start says why at once.
TEST(SandboxNested, WritesAndProcessesVanishAndStatusComesBack) {
    qpt::write_file("/usr/qora/etc/outer", "outer");
    qpt::write_file("/tmp/outer", "x");  // /tmp is fresh in every run
    qpt::RunResult r = sandboxed({"--", "/bin/sh", "-c", "cat /usr/qora/etc/outer; test -e /tmp/outer && echo shared;"
                                  "echo inner > /usr/qora/etc/outer; echo new > /etc/inner; /bin/sleep 987 & exit 7"});
    EXPECT_EQ(r.status, 7) << r.err;
    EXPECT_EQ(r.out, "outer");
    EXPECT_EQ(qpt::read_file("/usr/qora/etc/outer"), "outer");
    EXPECT_FALSE(qpt::exists("/etc/inner"));
    EXPECT_NE(qpt::run({"/usr/bin/pgrep", "-xf", "/bin/sleep 987"}).status, 0);
    const struct {
        std::vector<std::string> args;
        int status;
        std::string err;
    } failures[] = {
        {{"--", "/nonexistent/program"}, 127, "/nonexistent/program"},
        {{"--bind", "/nonexistent/dir", "--", "/bin/true"}, 125, "qp-sandbox: --bind /nonexistent/dir: no such path"},
    };
    for (const auto &f : failures) {
        const qpt::RunResult failed = sandboxed(f.args);
        EXPECT_EQ(failed.status, f.status);
        EXPECT_NE(failed.err.find(f.err), std::string::npos) << failed.err;
    }
    // Scripts run as the demo runs them, in the caller's directory, with stdin passed through.
    qpt::write_file("/usr/qora/etc/script.sh", "read line; echo \"$QP_SANDBOX $1 $line $(pwd)\"\n");
    const std::string in_etc = "cd /usr/qora/etc && exec " + qpt::bin_path("qp-sandbox") + " -- /bin/bash script.sh arg";
    qpt::RunResult script = qpt::run({"/bin/sh", "-c", in_etc}, "typed\n");
    EXPECT_EQ(script.status, 0) << script.err;
    EXPECT_EQ(script.out, "1 arg typed /usr/qora/etc\n");
}

}  // namespace
