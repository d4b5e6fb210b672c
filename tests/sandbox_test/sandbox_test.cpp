// The sandbox seen from inside (namespaces, directories, the syslog
// catcher), nested runs of it that show what survives a run (nothing) and
// what comes back out (the exit status), and the test support's runner.
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "qp_test.hpp"

namespace {

qpt::RunResult sandboxed(std::vector<std::string> args) {
    args.insert(args.begin(), qpt::bin_path("qp-sandbox"));
    return qpt::run(args);
}

// True while a process runs with exactly this command line.
bool running(const std::string &cmdline) { return qpt::run({"/usr/bin/pgrep", "-xf", cmdline}).status == 0; }

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
    // Only a loopback (the network tests' servers show it works), as this namespace's own sysfs shows.
    EXPECT_EQ(qpt::run({"/bin/ls", "/sys/class/net"}).out, "lo\n");
}

TEST(Sandbox, CatchesEveryMessageOfManyProcessesWithSeverityAndExactText) {
    constexpr int kProcs = 6, kEach = 3000;
    qpt::LogCapture log;
    openlog("other ident", LOG_PID, LOG_DAEMON);  // a blank in the ident, another facility
    syslog(LOG_WARNING, "%s:%d %s\n", "printer_conf_setup.cpp", 57, "QLIBCFileAddSection failed.(0x0900)");
    closelog();
    syslog(LOG_DEBUG, "two\nlines");  // one line in the file, the inner newline as \n
    for (int p = 0; p < kProcs; ++p) {
        if (fork() != 0) continue;
        for (int i = 0; i < kEach; ++i) syslog(LOG_INFO, "burst p%d m%d", p, i);
        _exit(0);
    }
    for (int p = 0, status = -1; p < kProcs; ++p) EXPECT_TRUE(wait(&status) > 0 && status == 0);
    const std::vector<qpt::LogLine> lines = log.lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0].severity, LOG_WARNING);
    EXPECT_EQ(lines[0].text, "printer_conf_setup.cpp:57 QLIBCFileAddSection failed.(0x0900)");
    EXPECT_EQ(lines[1].severity, LOG_DEBUG);
    EXPECT_EQ(lines[1].text, "two\\nlines");
    // Every message of every sender arrives.
    EXPECT_EQ(log.count(LOG_INFO, "burst p"), size_t{kProcs * kEach});
}

// run() keeps the streams apart and cannot deadlock on more than a pipe
// holds; stop() ends the program and what it started.
TEST(Support, RunAndStopKeepStreamsApartAndLeaveNothingBehind) {
    const int fds = qpt::open_fd_count();
    const std::string big(1 << 20, 'a');
    EXPECT_TRUE(qpt::run({"/bin/cat"}, big).out == big);
    EXPECT_EQ(qpt::run({"/bin/true"}, big).status, 0);
    const qpt::RunResult both = qpt::run({"/bin/sh", "-c", "echo out; echo err >&2; kill -KILL $$"});
    EXPECT_EQ(both.status, 128 + SIGKILL);
    EXPECT_EQ(both.out + "|" + both.err, "out\n|err\n");
    EXPECT_EQ(qpt::run({"/nonexistent/tool"}).status, -1);
    const pid_t pid = qpt::start({"/bin/sh", "-c", "/bin/sleep 300 & /bin/sleep 301"});
    ASSERT_TRUE(qpt::wait_until([] { return running("/bin/sleep 300"); }));
    qpt::stop(pid);
    EXPECT_TRUE(qpt::wait_until([&] { return kill(-pid, 0) == -1 && errno == ESRCH; }));
    EXPECT_EQ(qpt::open_fd_count(), fds);
}

// The outer sandbox's own files show through; the inner one's writes and
// processes do not outlive the run; the exit status comes back out.
TEST(SandboxNested, WritesAndProcessesVanishAndStatusComesBack) {
    qpt::write_file("/usr/qora/etc/outer", "outer");
    qpt::write_file("/tmp/outer", "x");  // /tmp is fresh in every run
    qpt::RunResult r = sandboxed({"--", "/bin/sh", "-c", "cat /usr/qora/etc/outer; test -e /tmp/outer && echo shared;"
                                  "echo inner > /usr/qora/etc/outer; echo new > /etc/inner; /bin/sleep 987 & exit 7"});
    EXPECT_EQ(r.status, 7) << r.err;
    EXPECT_EQ(r.out, "outer");
    EXPECT_EQ(qpt::read_file("/usr/qora/etc/outer"), "outer");
    EXPECT_FALSE(qpt::exists("/etc/inner"));
    EXPECT_FALSE(running("/bin/sleep 987"));
    qpt::RunResult missing = sandboxed({"--", "/nonexistent/program"});
    EXPECT_EQ(missing.status, 127);
    EXPECT_NE(missing.err.find("/nonexistent/program"), std::string::npos);
    // Scripts run as the demo runs them, in the caller's directory, with stdin passed through.
    qpt::write_file("/usr/qora/etc/script.sh", "read line; echo \"$QP_SANDBOX $1 $line $(pwd)\"\n");
    const std::string in_etc = "cd /usr/qora/etc && exec " + qpt::bin_path("qp-sandbox") + " -- /bin/bash script.sh arg";
    qpt::RunResult script = qpt::run({"/bin/sh", "-c", in_etc}, "typed\n");
    EXPECT_EQ(script.status, 0) << script.err;
    EXPECT_EQ(script.out, "1 arg typed /usr/qora/etc\n");
}

TEST(SandboxNested, SignalsReachTheProgramAndAKilledLauncherTakesEverythingAlong) {
    // A sandbox that cannot be set up fails here with its reason, not in a wait below.
    qpt::RunResult setup = sandboxed({"--", "/bin/true"});
    ASSERT_EQ(setup.status, 0) << setup.err;
    // Starts the sandbox, waits for the marker process (10 s at most: then
    // "gone"), signals the launcher and prints its status.
    auto signalled = [](const std::string &program, const std::string &marker, const std::string &sig) {
        return qpt::run({"/bin/sh", "-c",
                         qpt::bin_path("qp-sandbox") + " -- " + program + " & pid=$!; i=0; until /usr/bin/pgrep -xf '" +
                             marker + "' >/dev/null; do i=$((i+1)); [ $i -lt 1000 ] || { kill -KILL $pid; echo gone; break; };" +
                             " sleep 0.01; done; kill -" + sig + " $pid; wait $pid; echo $?"});
    };
    // A polite stop (a test runner's) goes on to the program.
    EXPECT_EQ(signalled("/bin/sleep 653", "/bin/sleep 653", "TERM").out, "143\n");
    // SIGKILL cannot be passed on: the namespace must die with the launcher.
    EXPECT_EQ(signalled("/bin/sh -c '/bin/sleep 654 & /bin/sleep 655'", "/bin/sleep 654", "KILL").out, "137\n");
    EXPECT_TRUE(qpt::wait_until([] { return !running("/bin/sleep 654") && !running("/bin/sleep 655"); }));
}

TEST(SandboxNested, KeepsMountsThatHoldTheProgramAndSharesBoundPaths) {
    // Other mounts than the root are not in the overlay; the program's and any --bind path are carried over.
    for (const char *dir : {"/mnt/qp-prog", "/mnt/qp-data"}) {
        qpt::mkdirs(dir);
        ASSERT_EQ(mount("tmpfs", dir, "tmpfs", 0, "mode=0755"), 0) << dir;
    }
    qpt::write_file("/mnt/qp-prog/tool.sh", "#!/bin/sh\ncat /mnt/qp-data/value 2>/dev/null || echo absent\n", 0755);
    qpt::write_file("/mnt/qp-data/value", "carried\n");
    EXPECT_EQ(sandboxed({"--", "/mnt/qp-prog/tool.sh"}).out, "absent\n");
    EXPECT_EQ(sandboxed({"--bind", "/mnt/qp-data", "--", "/mnt/qp-prog/tool.sh"}).out, "carried\n");
    for (const char *dir : {"/mnt/qp-prog", "/mnt/qp-data"}) EXPECT_EQ(umount2(dir, MNT_DETACH), 0);
    // A bound path of the root file system is written through, not copied.
    qpt::mkdirs("/var/qp-shared");
    EXPECT_EQ(sandboxed({"--bind", "/var/qp-shared", "--", "/bin/sh", "-c", "echo kept > /var/qp-shared/out"}).status, 0);
    EXPECT_EQ(qpt::read_file("/var/qp-shared/out"), "kept\n");
}

}  // namespace
