// The sandbox seen from inside, and nested runs of it that show what
// survives a run (nothing) and what comes back out (the exit status).
#include <arpa/inet.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "qp_test.hpp"

namespace {

qpt::RunResult sandboxed(std::vector<std::string> args, std::string_view input = {}) {
    args.insert(args.begin(), qpt::bin_path("qp-sandbox"));
    return qpt::run(args, input);
}

qpt::RunResult nested(const std::string &script) { return sandboxed({"--", "/bin/sh", "-c", script}); }

// True while a process runs with exactly this command line.
bool running(const std::string &cmdline) { return qpt::run({"/usr/bin/pgrep", "-xf", cmdline}).status == 0; }

TEST(Sandbox, IsPrivateNamespacesWithFreshSystemDirectories) {
    ASSERT_TRUE(qpt::in_sandbox());
    EXPECT_STREQ(getenv("DBUS_SYSTEM_BUS_ADDRESS"), "unix:path=/nonexistent");
    // The sandbox's init is PID 1 and this program its child.
    EXPECT_EQ(getppid(), 1);
    EXPECT_EQ(qpt::read_file("/proc/1/comm"), "qp-sandbox\n");

    const std::pair<const char *, mode_t> nodes[] = {
        {"/usr/qora/etc", S_IFDIR}, {"/run/qorasdk/lock", S_IFDIR}, {"/dev/usb", S_IFDIR},
        {"/var/services/printer", S_IFDIR}, {"/etc/samba", S_IFDIR}, {"/run/qp-test", S_IFDIR},
        {"/tmp", S_IFDIR | 01777}, {"/dev/null", S_IFCHR}, {"/dev/zero", S_IFCHR}, {"/dev/urandom", S_IFCHR},
        {"/dev/fuse", S_IFCHR}, {"/dev/log", S_IFSOCK}};
    for (auto [path, mode] : nodes) {
        struct stat st;
        ASSERT_EQ(stat(path, &st), 0) << path;
        EXPECT_EQ(st.st_mode & (mode & 07777 ? S_IFMT | 07777 : S_IFMT), mode) << path;  // permissions where given
    }
}

TEST(Sandbox, NetworkHasOnlyAWorkingLoopback) {
    // Read from sysfs, which must belong to this namespace too (tests read interfaces there).
    std::set<std::string> names;
    for (const auto &e : std::filesystem::directory_iterator("/sys/class/net")) names.insert(e.path().filename());
    EXPECT_EQ(names, std::set<std::string>{"lo"});

    // In a fresh namespace every port is free.
    const sockaddr_in addr = {
        .sin_family = AF_INET, .sin_port = htons(6310), .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
    int srv = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), cli = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(srv, reinterpret_cast<const sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(srv, 1), 0);
    EXPECT_EQ(connect(cli, reinterpret_cast<const sockaddr *>(&addr), sizeof addr), 0);
    close(cli);
    close(srv);
}

TEST(Sandbox, CatchesSyslogWithSeverityAndExactText) {
    qpt::LogCapture log;
    openlog("other ident", LOG_PID, LOG_DAEMON);  // a blank in the ident, another facility
    syslog(LOG_WARNING, "%s:%d %s\n", "printer_conf_setup.cpp", 57, "QLIBCFileAddSection failed.(0x0900)");
    closelog();
    std::vector<qpt::LogLine> lines = log.lines();
    ASSERT_EQ(lines.size(), 1u) << log.dump();
    EXPECT_EQ(lines[0].severity, LOG_WARNING);
    EXPECT_EQ(lines[0].text, "printer_conf_setup.cpp:57 QLIBCFileAddSection failed.(0x0900)");
    EXPECT_EQ(log.count(LOG_WARNING, "failed"), 1u);
    EXPECT_EQ(log.count(LOG_ERR, "failed"), 0u);
}

TEST(Sandbox, CatchesEveryMessageOfManyProcessesLoggingAtOnce) {
    constexpr int kProcs = 6, kEach = 3000;
    qpt::LogCapture log;
    for (int p = 0; p < kProcs; ++p) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            for (int i = 0; i < kEach; ++i) syslog(LOG_INFO, "burst p%d m%d", p, i);
            _exit(0);
        }
    }
    for (int p = 0; p < kProcs; ++p) {
        int status = -1;
        EXPECT_GT(wait(&status), 0);
        EXPECT_EQ(status, 0);
    }
    // Each sender's messages arrive complete and in its own order.
    std::vector<int> next(kProcs, 0);
    for (const qpt::LogLine &l : log.lines()) {
        int p, i;
        if (sscanf(l.text.c_str(), "burst p%d m%d", &p, &i) != 2) continue;
        ASSERT_TRUE(p >= 0 && p < kProcs) << l.text;
        EXPECT_EQ(i, next[p]) << "process " << p;
        next[p] = i + 1;
    }
    EXPECT_EQ(next, std::vector<int>(kProcs, kEach));
}

TEST(SandboxNested, WritesAndProcessesVanishWithTheRun) {
    // The outer sandbox's own files show through; the inner one's do not come back.
    qpt::write_file("/usr/qora/etc/outer", "outer");
    qpt::write_file("/tmp/outer", "x");
    qpt::RunResult r = nested("cat /usr/qora/etc/outer; test -e /tmp/outer && echo tmp-shared;"
                              "echo inner > /usr/qora/etc/outer; echo new > /etc/inner; /bin/sleep 987 & exit 0");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "outer");
    EXPECT_EQ(qpt::read_file("/usr/qora/etc/outer"), "outer");
    EXPECT_FALSE(qpt::exists("/etc/inner"));
    // The background process died with the run's PID namespace.
    EXPECT_FALSE(running("/bin/sleep 987"));
}

TEST(SandboxNested, PassesOnExitStatusWorkingDirectoryAndInput) {
    EXPECT_EQ(nested("exit 7").status, 7);
    EXPECT_EQ(nested("kill -TERM $$").status, 128 + SIGTERM);
    qpt::RunResult missing = sandboxed({"--", "/nonexistent/program"});
    EXPECT_EQ(missing.status, 127);
    EXPECT_NE(missing.err.find("/nonexistent/program"), std::string::npos);
    EXPECT_EQ(sandboxed({}).status, 2);
    EXPECT_EQ(sandboxed({"--bind", "/var/qp-missing", "--", "/bin/true"}).status, 125);

    const std::string in_etc = "cd /usr/qora/etc && exec " + qpt::bin_path("qp-sandbox") + " -- /bin/pwd";
    EXPECT_EQ(qpt::run({"/bin/sh", "-c", in_etc}).out, "/usr/qora/etc\n");
    // Scripts run as the demo runs them, with stdin passed through.
    qpt::write_file("/usr/qora/etc/script.sh", "read line; echo \"$QP_SANDBOX $1 $line\"\n");
    qpt::RunResult script = sandboxed({"--", "/bin/bash", "/usr/qora/etc/script.sh", "arg"}, "typed\n");
    EXPECT_EQ(script.status, 0) << script.err;
    EXPECT_EQ(script.out, "1 arg typed\n");
}

TEST(SandboxNested, SignalsReachTheProgramAndAKilledLauncherTakesEverythingAlong) {
    // Starts the sandbox, waits for the marker process, signals the launcher, prints its status.
    auto signalled = [](const std::string &program, const std::string &marker, const std::string &sig) {
        return qpt::run({"/bin/sh", "-c",
                         qpt::bin_path("qp-sandbox") + " -- " + program + " & pid=$!; until /usr/bin/pgrep -xf '" +
                             marker + "' >/dev/null; do sleep 0.01; done; kill -" + sig + " $pid; wait $pid; echo $?"});
    };
    // A polite stop (a test runner's) goes on to the program.
    qpt::RunResult term = signalled("/bin/sleep 653", "/bin/sleep 653", "TERM");
    EXPECT_EQ(term.out, "143\n") << term.err;
    // SIGKILL cannot be passed on: the namespace must die with the launcher.
    qpt::RunResult killed = signalled("/bin/sh -c '/bin/sleep 654 & /bin/sleep 655'", "/bin/sleep 654", "KILL");
    EXPECT_EQ(killed.out, "137\n") << killed.err;
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
    const std::string write = "echo kept > /var/qp-shared/out; echo lost > /var/qp-out";
    EXPECT_EQ(nested(write).status, 0);
    EXPECT_FALSE(qpt::exists("/var/qp-shared/out"));
    EXPECT_EQ(sandboxed({"--bind", "/var/qp-shared", "--", "/bin/sh", "-c", write}).status, 0);
    EXPECT_EQ(qpt::read_file("/var/qp-shared/out"), "kept\n");
    EXPECT_FALSE(qpt::exists("/var/qp-out"));
}

}  // namespace
