// The sandbox seen from inside, and nested runs of it that show what
// survives a run (nothing) and what comes back out (the exit status).
#include <arpa/inet.h>
#include <dirent.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <set>
#include <string>

#include <gtest/gtest.h>

#include "qp_test.hpp"

namespace {

std::string trim_nl(std::string s) {
    while (!s.empty() && s.back() == '\n') s.pop_back();
    return s;
}

qpt::RunResult nested(const std::string &script) {
    return qpt::run({qpt::bin_path("qp-sandbox"), "--", "/bin/sh", "-c", script});
}

// Processes whose command line is exactly argv (NUL-separated).
int count_processes(const std::string &cmdline) {
    int n = 0;
    DIR *d = opendir("/proc");
    if (!d) return -1;
    while (struct dirent *e = readdir(d)) {
        if (e->d_name[0] < '1' || e->d_name[0] > '9') continue;
        if (qpt::read_file(std::string("/proc/") + e->d_name + "/cmdline") == cmdline) ++n;
    }
    closedir(d);
    return n;
}

TEST(Sandbox, IsPrivateNamespacesWithFreshSystemDirectories) {
    ASSERT_TRUE(qpt::in_sandbox());
    EXPECT_STREQ(getenv("DBUS_SYSTEM_BUS_ADDRESS"), "unix:path=/nonexistent");

    // The sandbox's init is PID 1 and this program its child.
    EXPECT_EQ(getppid(), 1);
    EXPECT_EQ(trim_nl(qpt::read_file("/proc/1/comm")), "qp-sandbox");

    struct stat st;
    for (const char *dir : {"/usr/qora/etc", "/run/qorasdk/lock", "/dev/usb", "/var/services/printer",
                            "/etc/samba", "/run/qp-test"}) {
        ASSERT_EQ(stat(dir, &st), 0) << dir;
        EXPECT_TRUE(S_ISDIR(st.st_mode)) << dir;
    }
    ASSERT_EQ(stat("/tmp", &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 01777u);
    for (const char *node : {"/dev/null", "/dev/zero", "/dev/urandom", "/dev/fuse"}) {
        ASSERT_EQ(stat(node, &st), 0) << node;
        EXPECT_TRUE(S_ISCHR(st.st_mode)) << node;
    }
    ASSERT_EQ(stat("/dev/log", &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    // The CUPS administration tools are reachable where the library runs them.
    if (qpt::exists("/usr/sbin/lpadmin")) {
        EXPECT_EQ(access("/usr/bin/lpadmin", X_OK), 0);
    }
    if (qpt::exists("/usr/sbin/cupsenable")) {
        char target[256] = {};
        ASSERT_GT(readlink("/usr/bin/cupsenable", target, sizeof target - 1), 0);
        EXPECT_STREQ(target, "/usr/sbin/cupsenable");
    }
}

TEST(Sandbox, NetworkHasOnlyAWorkingLoopback) {
    std::set<std::string> names;
    struct if_nameindex *ifs = if_nameindex();
    ASSERT_NE(ifs, nullptr);
    for (struct if_nameindex *i = ifs; i->if_index; ++i) names.insert(i->if_name);
    if_freenameindex(ifs);
    EXPECT_EQ(names, std::set<std::string>{"lo"});
    // sysfs belongs to this namespace too (tests read interfaces there).
    EXPECT_TRUE(qpt::exists("/sys/class/net/lo"));

    int srv = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int cli = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(srv, 0);
    ASSERT_GE(cli, 0);
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ASSERT_EQ(bind(srv, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(srv, 1), 0);
    ASSERT_EQ(getsockname(srv, reinterpret_cast<sockaddr *>(&addr), &len), 0);
    EXPECT_EQ(connect(cli, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    close(cli);
    close(srv);
}

TEST(Sandbox, CatchesSyslogWithSeverityAndExactText) {
    qpt::LogCapture log;
    syslog(LOG_ERR, "%s:%d %s\n", "printer_conf_setup.cpp", 57, "QLIBCFileAddSection failed.(0x0900)");
    syslog(LOG_DEBUG, "%s:%d two\nlines\n", "x.cpp", 9);
    openlog("other ident", LOG_PID, LOG_DAEMON);
    syslog(LOG_WARNING, "tagged: text");
    closelog();
    std::vector<qpt::LogLine> lines = log.lines();
    ASSERT_EQ(lines.size(), 3u) << log.dump();
    EXPECT_EQ(lines[0].severity, LOG_ERR);
    EXPECT_EQ(lines[0].text, "printer_conf_setup.cpp:57 QLIBCFileAddSection failed.(0x0900)");
    EXPECT_EQ(lines[1].severity, LOG_DEBUG);
    EXPECT_EQ(lines[1].text, "x.cpp:9 two\\nlines");
    EXPECT_EQ(lines[2].severity, LOG_WARNING);
    EXPECT_EQ(lines[2].text, "tagged: text");
    EXPECT_EQ(log.count(LOG_ERR, "failed"), 1u);
    EXPECT_EQ(log.count(LOG_DEBUG, "failed"), 0u);
}

TEST(Sandbox, CatchesEveryMessageOfManyProcessesLoggingAtOnce) {
    constexpr int kProcs = 6, kEach = 3000;
    qpt::LogCapture log;
    std::vector<pid_t> kids;
    for (int p = 0; p < kProcs; ++p) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            for (int i = 0; i < kEach; ++i) syslog(LOG_INFO, "burst p%d m%d", p, i);
            _exit(0);
        }
        kids.push_back(pid);
    }
    for (pid_t pid : kids) {
        int status;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_EQ(status, 0);
    }
    // Each sender's messages arrive complete and in its own order.
    std::vector<int> next(kProcs, 0);
    int total = 0;
    for (const qpt::LogLine &l : log.lines()) {
        int p, i;
        if (sscanf(l.text.c_str(), "burst p%d m%d", &p, &i) != 2) continue;
        ASSERT_TRUE(p >= 0 && p < kProcs) << l.text;
        EXPECT_EQ(i, next[p]) << "process " << p;
        next[p] = i + 1;
        ++total;
    }
    EXPECT_EQ(total, kProcs * kEach);
}

TEST(SandboxNested, WritesAndProcessesVanishWithTheRun) {
    // The outer sandbox's own files show through; the inner one's do not
    // come back.
    qpt::write_file("/usr/qora/etc/outer-probe", "outer");
    qpt::write_file("/tmp/outer-tmp", "x");
    qpt::RunResult r = nested(
        "cat /usr/qora/etc/outer-probe; test -e /tmp/outer-tmp && echo tmp-shared;"
        "echo inner > /usr/qora/etc/outer-probe; echo new > /etc/inner-probe;"
        "/bin/sleep 987 & exit 0");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "outer");
    EXPECT_EQ(qpt::read_file("/usr/qora/etc/outer-probe"), "outer");
    EXPECT_FALSE(qpt::exists("/etc/inner-probe"));
    // The background process died with the run's PID namespace.
    EXPECT_EQ(count_processes(std::string("/bin/sleep\0987\0", 15)), 0);
    qpt::remove_file("/usr/qora/etc/outer-probe");
    qpt::remove_file("/tmp/outer-tmp");
}

TEST(SandboxNested, PassesOnExitStatusAndWorkingDirectory) {
    EXPECT_EQ(nested("exit 7").status, 7);
    EXPECT_EQ(nested("kill -TERM $$").status, 128 + SIGTERM);
    qpt::RunResult missing = qpt::run({qpt::bin_path("qp-sandbox"), "--", "/nonexistent/program"});
    EXPECT_EQ(missing.status, 127);
    EXPECT_NE(missing.err.find("/nonexistent/program"), std::string::npos);
    EXPECT_EQ(qpt::run({qpt::bin_path("qp-sandbox")}).status, 2);

    qpt::RunResult cwd = qpt::run({"/bin/sh", "-c", "cd /usr/qora/etc && exec " + qpt::bin_path("qp-sandbox") +
                                                        " -- /bin/pwd"});
    EXPECT_EQ(cwd.out, "/usr/qora/etc\n");

    // Scripts run as the demo runs them, with stdin passed through.
    qpt::write_file("/usr/qora/etc/script.sh", "read line; echo \"$QP_SANDBOX $1 $line\"\n");
    qpt::RunResult script = qpt::run(
        {qpt::bin_path("qp-sandbox"), "--", "/bin/bash", "/usr/qora/etc/script.sh", "arg"}, "typed\n");
    EXPECT_EQ(script.status, 0) << script.err;
    EXPECT_EQ(script.out, "1 arg typed\n");
    qpt::remove_file("/usr/qora/etc/script.sh");
}

TEST(SandboxNested, SignalsReachTheProgramAndAKilledLauncherTakesEverythingAlong) {
    const std::string sandbox = qpt::bin_path("qp-sandbox");
    // A polite stop (a test runner's) goes on to the program.
    qpt::RunResult term = qpt::run(
        {"/bin/sh", "-c",
         sandbox + " -- /bin/sleep 653 & pid=$!;"
                   "until /usr/bin/pgrep -f '^/bin/sleep 653$' >/dev/null; do sleep 0.01; done;"
                   "kill -TERM $pid; wait $pid; echo $?"});
    EXPECT_EQ(term.out, "143\n") << term.err;

    // SIGKILL cannot be passed on: the namespace must die with the launcher.
    qpt::RunResult killed = qpt::run(
        {"/bin/sh", "-c",
         sandbox + " -- /bin/sh -c '/bin/sleep 654 & /bin/sleep 655' & pid=$!;"
                   "until /usr/bin/pgrep -f '^/bin/sleep 654$' >/dev/null; do sleep 0.01; done;"
                   "kill -KILL $pid; wait $pid; echo $?"});
    EXPECT_EQ(killed.out, "137\n") << killed.err;
    EXPECT_TRUE(qpt::wait_until([] {
        return count_processes(std::string("/bin/sleep\0" "654\0", 15)) == 0 &&
               count_processes(std::string("/bin/sleep\0" "655\0", 15)) == 0;
    }));
}

TEST(SandboxNested, KeepsMountsThatHoldTheProgramAndSharesBoundPaths) {
    // Mounts other than the root file system are not in the overlay; the
    // one holding the program and any --bind path are carried over.
    for (const char *dir : {"/mnt/qp-prog", "/mnt/qp-data"}) {
        qpt::mkdirs(dir);
        ASSERT_EQ(mount("tmpfs", dir, "tmpfs", 0, "mode=0755"), 0) << dir;
    }
    qpt::write_file("/mnt/qp-prog/tool.sh", "#!/bin/sh\ncat /mnt/qp-data/value 2>/dev/null || echo absent\n", 0755);
    qpt::write_file("/mnt/qp-data/value", "carried\n");

    qpt::RunResult plain = qpt::run({qpt::bin_path("qp-sandbox"), "--", "/mnt/qp-prog/tool.sh"});
    EXPECT_EQ(plain.status, 0) << plain.err;
    EXPECT_EQ(plain.out, "absent\n");
    qpt::RunResult bound =
        qpt::run({qpt::bin_path("qp-sandbox"), "--bind", "/mnt/qp-data", "--", "/mnt/qp-prog/tool.sh"});
    EXPECT_EQ(bound.status, 0) << bound.err;
    EXPECT_EQ(bound.out, "carried\n");

    for (const char *dir : {"/mnt/qp-prog", "/mnt/qp-data"}) EXPECT_EQ(umount2(dir, MNT_DETACH), 0);

    // A bound path of the root file system is written through, not copied.
    qpt::mkdirs("/var/qp-shared");
    EXPECT_EQ(nested("echo kept > /var/qp-shared/out; echo lost > /var/qp-out").status, 0);
    EXPECT_FALSE(qpt::exists("/var/qp-shared/out"));
    qpt::RunResult shared = qpt::run({qpt::bin_path("qp-sandbox"), "--bind", "/var/qp-shared", "--", "/bin/sh",
                                      "-c", "echo kept > /var/qp-shared/out; echo lost > /var/qp-out"});
    EXPECT_EQ(shared.status, 0) << shared.err;
    EXPECT_EQ(qpt::read_file("/var/qp-shared/out"), "kept\n");
    EXPECT_FALSE(qpt::exists("/var/qp-out"));
    EXPECT_EQ(qpt::run({qpt::bin_path("qp-sandbox"), "--bind", "/var/qp-missing", "--", "/bin/true"}).status, 125);
}

}  // namespace
