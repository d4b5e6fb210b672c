// The catcher's datagram-to-line formatting, for senders other than glibc's
// syslog(3) (logger, daemons, stream-style NUL terminators).
#include <gtest/gtest.h>

#include "sandbox.hpp"

namespace {

using qps::syslog_line;

TEST(SyslogLine, StripsHeaderAndKeepsSeverityOnly) {
    EXPECT_EQ(syslog_line("<11>Jan  3 04:05:06 prog[42]: file.cpp:1 text\n"), "3 file.cpp:1 text\n");
    EXPECT_EQ(syslog_line("<31>Dec 24 23:59:59 prog: a: b"), "7 a: b\n");        // daemon.debug
    EXPECT_EQ(syslog_line("<190>Oct 10 10:10:10 x: y"), "6 y\n");                 // local7.info
    EXPECT_EQ(syslog_line("<28>Jan  3 04:05:06 my daemon[7]: up: 1"), "4 up: 1\n");
    // No tag: the text after the timestamp is all message.
    EXPECT_EQ(syslog_line("<3>Jan 13 04:05:06 no tag here: x"), "3 no tag here: x\n");
    // Without a timestamp nothing that looks like a tag is removed.
    EXPECT_EQ(syslog_line("<3>printer.cpp:5 msg"), "3 printer.cpp:5 msg\n");
}

TEST(SyslogLine, OneLinePerMessageWhateverItHolds) {
    EXPECT_EQ(syslog_line("<7>Jan  1 00:00:00 t: a\nb\n"), "7 a\\nb\n");
    EXPECT_EQ(syslog_line("<7>Jan  1 00:00:00 t: a\n\n"), "7 a\\n\n");  // only the last newline goes
    EXPECT_EQ(syslog_line(std::string_view("<4>Jan  1 00:00:00 t: z\n\0", 26)), "4 z\n");
    EXPECT_EQ(syslog_line("<6>Jan  1 00:00:00 t: "), "6 \n");
    // No or broken priority: syslogd's default, text untouched.
    EXPECT_EQ(syslog_line("plain"), "5 plain\n");
    EXPECT_EQ(syslog_line("<12"), "5 <12\n");
    EXPECT_EQ(syslog_line("<99999999>x"), "5 <99999999>x\n");
    EXPECT_EQ(syslog_line(""), "5 \n");
}

}  // namespace
