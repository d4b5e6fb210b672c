// printer.conf's lock, section writes and queue-name reads, against hostile
// files, other processes and writers killed half way.
#include <fcntl.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <map>

#include <gtest/gtest.h>

#include "conf_test_util.hpp"

namespace {

using namespace conft;
using Keys = std::map<std::string, std::string>;

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
    EXPECT_STREQ(QLIBCErrorGetFile(), "printer_conf_setup.cpp");
    EXPECT_EQ(qpt::read_file(kConf), before);
    kill(forever, SIGKILL);
    waitpid(forever, nullptr, 0);

    EXPECT_EQ(QORAPrinterPrinterConfUnlock(-1), 0);
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
    const std::string at = "printer_conf_unlock.cpp:" + std::to_string(QLIBCErrorGetLine());
    EXPECT_EQ(log.count(3, at + " Invaild Argument (0 <= fdLock)=[0]"), 1u);
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

// A rewrite keeps keys the record lacks and every other byte, garbage and
// binary included; forcing stores driver and timers even when empty; of two
// sections of one name the first is written.  The queue name is cut to the
// buffer; an empty or missing one fails with one logged line.
TEST_F(ConfStore, RewriteKeepsOtherBytesAndCupsNameGet) {
    std::string binary;
    for (int b = 1; b < 256; ++b)
        if (b != '\n') binary += static_cast<char>(b);
    const std::string head = "garbage\n[a]\n\tx = 1\n\tcups printer name = \nnot a pair\n" + binary + "\n\tlong = " +
                             std::string(100000, 'L') + "\n";
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

// An unreadable file is never overwritten.  Root passes permission checks, so
// the child drops the capabilities that let it.
TEST_F(ConfStore, UnreadableFileIsNotOverwritten) {
    const std::string before = "[p]\n\tcups printer name = usbprinter2\n";
    qpt::write_file(kConf, before, 0000);
    const int status = conft::in_child([&] {
        struct __user_cap_header_struct h = {_LINUX_CAPABILITY_VERSION_3, 0};
        struct __user_cap_data_struct d[2] = {};
        if (syscall(SYS_capget, &h, d) != 0) return 10;
        d[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
        if (syscall(SYS_capset, &h, d) != 0 || open(kConf, O_RDONLY) >= 0) return 11;
        PrinterConf c = record("p", "new");
        qpt::LogCapture log;
        if (QORAPrinterConfSetup(&c, 0) >= 0) return 20;
        char text[64];
        snprintf(text, sizeof text, "QLIBCFileAddSection failed.(0x%04X)", QLIBCErrGet());
        return log.count(3, text) == 1 ? 0 : 21;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(qpt::read_file(kConf), before);
}

// Every path gives back its descriptors: the lock, the file reads.
TEST_F(ConfStore, NoDescriptorLeaks) {
    qpt::write_file(kConf, "[p]\n\tcups printer name = q\n");
    QORAPrinterPrinterConfUnlock(-1);  // opens the syslog socket once
    const int before = qpt::open_fd_count();
    char buf[16];
    PrinterConf c = record("p", "x");
    PrinterGoogleInfo g{"a", "p", ""};
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(QORAPrinterConfSetup(&c, i), 0);
        EXPECT_EQ(QORAPrinterCupsNameGet("p", buf, sizeof buf) + QORAPrinterCupsNameGet("-", buf, sizeof buf), -1);
        EXPECT_EQ(QORAPrinterGoogleInfoSet(&g) + QORAPrinterGoogleInfoGet(&g), 0);
        EXPECT_EQ(QORAPrinterModelDetect(&c), -1);
    }
    EXPECT_EQ(qpt::open_fd_count(), before);
}

// Processes writing their own sections at once lose and duplicate nothing.
TEST_F(ConfStore, ConcurrentWritersOfDistinctSections) {
    qpt::write_file(kConf, "[base]\n\tproducer = B\n");
    constexpr int kProcs = 6, kRounds = 8;
    pid_t pids[kProcs];
    for (int i = 0; i < kProcs; ++i)
        if ((pids[i] = fork()) == 0)
            for (int r = 0;; ++r) {
                if (r == kRounds) _exit(0);
                PrinterConf pc = record("w" + std::to_string(i), "round" + std::to_string(r));
                if (QORAPrinterConfSetup(&pc, 0) != 0) _exit(1);
            }
    for (int st = 0; pid_t pid : pids)
        EXPECT_TRUE(waitpid(pid, &st, 0) == pid && WIFEXITED(st) && WEXITSTATUS(st) == 0);
    EXPECT_EQ(section("base").at("producer"), "B");
    const Keys last{{"producer", "round" + std::to_string(kRounds - 1)}};
    for (int i = 0; i < kProcs; ++i) EXPECT_EQ(section(("w" + std::to_string(i)).c_str()), last) << i;
    const std::string text = qpt::read_file(kConf);
    EXPECT_EQ(std::count(text.begin(), text.end(), '['), kProcs + 1) << text;
}

// A writer killed at any moment leaves one whole version, and no lock.
TEST_F(ConfStore, KilledWriterLeavesOldOrNewFile) {
    qpt::write_file(kConf, "[first]\n\tproducer = F\n[p]\n\tmode = lpr\n[last]\n" + std::string(64 * 1024, '#') + "\n");
    PrinterConf a = record("p"), b = record("p");
    put(a.szUsblpStringId, std::string(1000, 'A'));
    put(b.szUsblpStringId, "B");
    ASSERT_EQ(QORAPrinterConfSetup(&b, 0), 0);
    const std::string fb = qpt::read_file(kConf);
    ASSERT_EQ(QORAPrinterConfSetup(&a, 0), 0);
    const std::string fa = qpt::read_file(kConf);
    for (int round = 0; round < 40; ++round) {
        const pid_t pid = fork();
        if (pid == 0)
            for (int i = 0;; ++i) QORAPrinterConfSetup(i % 2 ? &a : &b, 0);
        usleep((round * 7919 % 25) * 1000);  // spread over a write's length
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        const std::string now = qpt::read_file(kConf);
        ASSERT_TRUE(now == fa || now == fb) << "round " << round << ": neither version, " << now.size() << " bytes";
    }
    EXPECT_EQ(QORAPrinterPrinterConfUnlock(QORAPrinterPrinterConfLock()), 1);
}

}  // namespace
