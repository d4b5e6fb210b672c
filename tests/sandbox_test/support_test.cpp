// The helpers every other test relies on.
#include <errno.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "qp_test.hpp"

namespace {

TEST(Support, RunFeedsInputAndKeepsStreamsApart) {
    int fds = qpt::open_fd_count();
    // More than a pipe holds in both directions at once: no deadlock.
    std::string big(1 << 20, 'a');
    for (size_t i = 0; i < big.size(); i += 997) big[i] = static_cast<char>(i);
    qpt::RunResult cat = qpt::run({"/bin/cat"}, big);
    EXPECT_EQ(cat.status, 0);
    EXPECT_TRUE(cat.out == big) << "output of " << cat.out.size() << " bytes differs";

    qpt::RunResult both = qpt::run({"/bin/sh", "-c", "echo out; echo err >&2; exit 3"});
    EXPECT_EQ(both.status, 3);
    EXPECT_EQ(both.out, "out\n");
    EXPECT_EQ(both.err, "err\n");

    // A child that never reads its input must not hurt us.
    EXPECT_EQ(qpt::run({"/bin/true"}, big).status, 0);
    EXPECT_EQ(qpt::run({"/bin/sh", "-c", "kill -KILL $$"}).status, 128 + SIGKILL);
    EXPECT_EQ(qpt::run({"/nonexistent/tool"}).status, -1);
    EXPECT_EQ(qpt::open_fd_count(), fds);
}

TEST(Support, StopEndsTheProgramAndWhatItStarted) {
    int fds = qpt::open_fd_count();
    pid_t pid = qpt::start({"/bin/sh", "-c", "/bin/sleep 300 & /bin/sleep 301"});
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(qpt::wait_until([&] { return qpt::run({"/usr/bin/pgrep", "-g", std::to_string(pid)}).out.size() > 0; }));
    qpt::stop(pid);
    errno = 0;
    EXPECT_EQ(kill(pid, 0), -1);
    // The orphaned sleep was killed with its group and reaped by init.
    EXPECT_TRUE(qpt::wait_until([&] { return kill(-pid, 0) == -1 && errno == ESRCH; }));
    EXPECT_EQ(qpt::open_fd_count(), fds);
}

TEST(Support, LogCaptureSeesOnlyItsOwnStretch) {
    syslog(LOG_ERR, "before capture");
    qpt::LogCapture log;
    syslog(LOG_ERR, "first");
    // Flush markers are never reported, even when a test narrows the mask.
    int mask = setlogmask(LOG_UPTO(LOG_ERR));
    EXPECT_EQ(log.count("first"), 1u);
    EXPECT_EQ(log.count("before capture"), 0u);
    setlogmask(mask);
    ASSERT_EQ(log.lines().size(), 1u) << log.dump();
    log.reset();
    syslog(LOG_NOTICE, "second");
    std::vector<qpt::LogLine> lines = log.lines();
    ASSERT_EQ(lines.size(), 1u) << log.dump();
    EXPECT_EQ(lines[0].severity, LOG_NOTICE);
    EXPECT_EQ(lines[0].text, "second");
    EXPECT_EQ(log.dump(), "5 second\n");
}

}  // namespace
