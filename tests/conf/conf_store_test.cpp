// printer.conf's lock, section writes and queue-name reads.  Byte-exact and
// atomic rewrites of the file are the core library's (platform_test).
#include <fcntl.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <climits>

#include "conf_test_util.hpp"

namespace {

using namespace conft;
using Keys = qpfile::Map;

PrinterConf record(const std::string &id, const std::string &producer = "") {
    PrinterConf c{};
    put(c.szPrinterId, id);
    put(c.szProducer, producer);
    return c;
}

class ConfStore : public conft::ConfTest {};

// A short holder is waited for; one that never lets go makes a write give up
// after ~5 s, quietly, file untouched.  Only unlock logs its argument check.
TEST_F(ConfStore, LockWaitGiveUpAndUnlock) {
    int fd = QORAPrinterPrinterConfLock();
    if (fork() == 0) _exit(usleep(300 * 1000));  // the child inherits the flock
    close(fd);
    EXPECT_EQ(QORAPrinterPrinterConfUnlock(fd = QORAPrinterPrinterConfLock()), 1);
    const std::string before = "[kept]\n\tproducer = old\n";
    qpt::write_file(kConf, before);  // a write that gives up must not touch it
    fd = QORAPrinterPrinterConfLock();
    const pid_t forever = fork();
    if (forever == 0) _exit(pause());  // holds the lock until killed
    close(fd);
    PrinterConf c = record("kept", "new");
    const time_t t0 = time(nullptr);
    qpt::LogCapture log;
    EXPECT_EQ(QORAPrinterConfSetup(&c, 0), -1);
    EXPECT_GE(time(nullptr) - t0, 4);
    EXPECT_EQ(QLIBCErrGet(), ERR_LOCK_FAILED);
    EXPECT_EQ(qpt::read_file(kConf), before);
    kill(forever, SIGKILL);
    waitpid(forever, nullptr, 0);

    EXPECT_EQ(QORAPrinterPrinterConfUnlock(-1), 0);
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
    EXPECT_EQ(log.count(3, "printer_conf_unlock.cpp"), 1u);
    EXPECT_EQ(QORAPrinterConfSetup(nullptr, 1), -1);
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
    EXPECT_EQ(QORAPrinterPrinterConfUnlock(INT_MAX), 0);
    EXPECT_EQ(log.lines().size(), 1u) << log.dump();
}

// A new section goes at the end with only the fields given, in the fixed key
// order; a field filled to its last byte is read as a text of width less one.
TEST_F(ConfStore, NewSectionIsAppendedWithNonEmptyFields) {
    const std::string before = "# printers\n[04a9:1827:OLD]\n\tproducer = Old\n";
    qpt::write_file(kConf, before);
    PrinterConf c = record("", "ACME");
    std::memset(c.szPrinterId, 'j', sizeof c.szPrinterId);
    std::memset(c.szAutoLockTimer, '9', sizeof c.szAutoLockTimer);
    put(c.szFitToPage, "1");
    put(c.szMode, "usbip");
    put(c.szDetectedVendor, "not stored");
    ASSERT_EQ(QORAPrinterConfSetup(&c, 0), 0);
    const std::string after = qpt::read_file(kConf);
    ASSERT_EQ(after.compare(0, before.size(), before), 0) << after;
    EXPECT_EQ(after.substr(after.find_first_not_of('\n', before.size())), "[" + std::string(127, 'j') +
                         "]\n\tproducer = ACME\n\tmode = usbip\n\tautolock timer = 999\n\tfit to page = 1\n");
}

// A rewrite keeps keys the record lacks and every other section; forcing
// stores driver and timers even when empty; of two sections of one name the
// first is written.  The queue name is cut to the buffer; an empty or
// missing one fails with one logged line.
TEST_F(ConfStore, RewriteKeepsOtherKeysAndCupsNameGet) {
    const std::string head = "garbage\n[a]\n\tx = 1\n\tcups printer name = \n";
    const std::string tail = "[b]\r\n\ty = 2\r\n[a]\n\tx = duplicate\n";
    qpt::write_file(kConf, head + "[p]\n\tcups printer name = queue1\n\tdriver = old\n\tautolock timer = 5\n" + tail);
    PrinterConf c = record("p", "ACME");
    for (int force : {0, 1}) {
        ASSERT_EQ(QORAPrinterConfSetup(&c, force), 0);
        const std::string after = qpt::read_file(kConf);
        EXPECT_EQ(after.compare(0, head.size(), head), 0) << "bytes before the section changed";
        EXPECT_EQ(after.compare(after.size() - tail.size(), tail.size(), tail), 0) << "bytes after it changed";
    }
    EXPECT_EQ(section("p"), (Keys{{"cups printer name", "queue1"}, {"driver", ""}, {"driver brand", ""},
                                  {"autolock timer", ""}, {"manuallock timer", ""}, {"producer", "ACME"}}));
    PrinterConf a = record("a", "pa");
    ASSERT_EQ(QORAPrinterConfSetup(&a, 0), 0);
    auto sa = section("a");
    EXPECT_TRUE(sa["x"] == "1" && sa["producer"] == "pa" && sa.count("cups printer name"));

    char buf[8];
    EXPECT_EQ(QORAPrinterCupsNameGet("p", buf, 5), 0);
    EXPECT_STREQ(buf, "queu");
    for (const std::string id : {"a", "b", "nope"}) {
        qpt::LogCapture log;
        EXPECT_EQ(QORAPrinterCupsNameGet(id.c_str(), buf, sizeof buf), -1) << id;
        EXPECT_TRUE(log.lines().size() == 1 && log.count(3, "get cups printer name failed, printer=" + id) == 1)
            << log.dump();
    }
}

// An unreadable file is never overwritten, and the lock is let go.  Root
// passes permission checks, so the child drops the capabilities that let it.
TEST_F(ConfStore, UnreadableFileIsNotOverwritten) {
    const std::string before = "[p]\n\tcups printer name = usbprinter2\n";
    qpt::write_file(kConf, before, 0000);
    const pid_t pid = fork();
    if (pid == 0) _exit([&] {
        struct __user_cap_header_struct h = {_LINUX_CAPABILITY_VERSION_3, 0};
        struct __user_cap_data_struct d[2] = {};
        if (syscall(SYS_capget, &h, d) != 0) return 10;
        d[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
        if (syscall(SYS_capset, &h, d) != 0 || open(kConf, O_RDONLY) >= 0) return 11;
        PrinterConf c = record("p", "new");
        if (QORAPrinterConfSetup(&c, 0) >= 0) return 20;
        return QORAPrinterPrinterConfUnlock(QORAPrinterPrinterConfLock()) == 1 ? 0 : 22;
    }());
    int status = -1;
    EXPECT_TRUE(waitpid(pid, &status, 0) == pid && WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(qpt::read_file(kConf), before);
}

}  // namespace
