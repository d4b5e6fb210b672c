// The sandbox seen from inside (namespaces, directories; the tests that
// count log lines show the syslog catcher at work), and nested runs of it:
// what survives a run (nothing), what comes back out (the exit status), and
// a set-up failure's reason.
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
    // The sandbox's init is PID 1 and this program its child.
    EXPECT_EQ(getppid(), 1);
    // A fresh /tmp and /dev of its own, the syslog catcher's socket in it.
    EXPECT_EQ(qpt::run({"/usr/bin/stat", "-c", "%n %a %F", "/tmp", "/dev/log"}).out,
              "/tmp 1777 directory\n/dev/log 666 socket\n");
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
    const qpt::RunResult missing = sandboxed({"--", "/nonexistent/program"});
    EXPECT_EQ(missing.status, 127);
    EXPECT_NE(missing.err.find("qp-sandbox: cannot run /nonexistent/program"), std::string::npos) << missing.err;
    const qpt::RunResult unset = sandboxed({"--bind", "/nonexistent/dir", "--", "/bin/true"});
    EXPECT_EQ(unset.status, 125);
    EXPECT_NE(unset.err.find("qp-sandbox: --bind /nonexistent/dir: no such path"), std::string::npos) << unset.err;
}

}  // namespace
