// The helpers every other test relies on.
#include <errno.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "qp_test.hpp"

namespace {

TEST(Support, RunAndStopKeepStreamsApartAndLeaveNothingBehind) {
    const int fds = qpt::open_fd_count();
    // More than a pipe holds in both directions at once: no deadlock; a child
    // that never reads its input must not hurt us.
    const std::string big(1 << 20, 'a');
    EXPECT_TRUE(qpt::run({"/bin/cat"}, big).out == big);
    EXPECT_EQ(qpt::run({"/bin/true"}, big).status, 0);
    qpt::RunResult both = qpt::run({"/bin/sh", "-c", "echo out; echo err >&2; kill -KILL $$"});
    EXPECT_EQ(both.status, 128 + SIGKILL);
    EXPECT_EQ(both.out + "|" + both.err, "out\n|err\n");
    EXPECT_EQ(qpt::run({"/nonexistent/tool"}).status, -1);

    // Stop ends the program and what it started: the orphan goes with its group.
    pid_t pid = qpt::start({"/bin/sh", "-c", "/bin/sleep 300 & /bin/sleep 301"});
    ASSERT_TRUE(qpt::wait_until([&] { return qpt::run({"/usr/bin/pgrep", "-g", std::to_string(pid)}).out.size() > 0; }));
    qpt::stop(pid);
    EXPECT_TRUE(qpt::wait_until([&] { return kill(-pid, 0) == -1 && errno == ESRCH; }));
    EXPECT_EQ(qpt::open_fd_count(), fds);
}

TEST(Support, LogCaptureSeesOnlyItsOwnStretch) {
    syslog(LOG_ERR, "before capture");
    qpt::LogCapture log;
    syslog(LOG_ERR, "first");
    // Flush markers are never reported, even when a test narrows the mask.
    const int mask = setlogmask(LOG_UPTO(LOG_ERR));
    EXPECT_EQ(log.dump(), "3 first\n");
    setlogmask(mask);
    log.reset();
    syslog(LOG_NOTICE, "second");
    EXPECT_EQ(log.dump(), "5 second\n");
}

}  // namespace
