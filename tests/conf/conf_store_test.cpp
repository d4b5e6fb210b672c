// printer.conf: the configuration lock, writing a USB printer's section and
// reading its queue name, against hostile files, other processes and
// writers killed half way.
#include <fcntl.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "conf_test_util.hpp"
#include "qoracore.h"
#include "qoraprinter.h"
#include "qp_test.hpp"

namespace {

using conft::kConf;
using conft::kLockFile;
using conft::put;
using conft::section;

void sleep_ms(int ms) {
    struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
    nanosleep(&ts, nullptr);
}

// A process that holds the configuration lock until stop(); the lock is
// taken before the constructor returns.
class LockHolder {
public:
    explicit LockHolder(int hold_ms = -1) {
        int p[2];
        EXPECT_EQ(pipe(p), 0);
        pid_ = fork();
        if (pid_ == 0) {
            int fd = -1;
            char ok = QLIBCFileLockByFile(kLockFile, 1, &fd) == 1 ? 'L' : 'x';
            (void)!write(p[1], &ok, 1);
            if (hold_ms < 0) pause();
            sleep_ms(hold_ms);
            _exit(0);
        }
        close(p[1]);
        char c = 0;
        EXPECT_EQ(read(p[0], &c, 1), 1);
        EXPECT_EQ(c, 'L');
        close(p[0]);
    }
    ~LockHolder() { stop(); }
    void stop() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
};

PrinterConf record(const std::string &id) {
    PrinterConf c{};
    put(c.szPrinterId, id);
    return c;
}

class ConfStore : public conft::ConfTest {};

TEST_F(ConfStore, LockIsExclusiveAcrossProcesses) {
    const int fd = QORAPrinterPrinterConfLock();
    ASSERT_GE(fd, 0);
    auto try_lock = [] {
        return conft::in_child([] {
            int f = -1;
            return QLIBCFileLockByFile(kLockFile, 1, &f) == 1 ? 1 : 0;
        });
    };
    EXPECT_EQ(try_lock(), 0);
    EXPECT_EQ(QORAPrinterPrinterConfUnlock(fd), 1);
    EXPECT_EQ(try_lock(), 1);
    // A descriptor that cannot be closed answers 0, without the argument
    // message.  (Closing fd again could hit a reused number.)
    qpt::LogCapture log;
    EXPECT_EQ(QORAPrinterPrinterConfUnlock(INT_MAX), 0);
    EXPECT_EQ(log.lines().size(), 0u) << log.dump();
}

TEST_F(ConfStore, LockWaitsForAShortHolder) {
    LockHolder holder(300);
    const int fd = QORAPrinterPrinterConfLock();
    EXPECT_GE(fd, 0);
    if (fd >= 0) {
        EXPECT_EQ(QORAPrinterPrinterConfUnlock(fd), 1);
    }
}

TEST_F(ConfStore, UnlockRejectsNegativeDescriptor) {
    qpt::LogCapture log;
    EXPECT_EQ(QORAPrinterPrinterConfUnlock(-1), 0);
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
    EXPECT_STREQ(QLIBCErrorGetFile(), "printer_conf_unlock.cpp");
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u) << log.dump();
    EXPECT_EQ(lines[0].severity, 3);
    EXPECT_EQ(lines[0].text, "printer_conf_unlock.cpp:" + std::to_string(QLIBCErrorGetLine()) +
                                 " Invaild Argument (0 <= fdLock)=[0]");
}

// Held past the ~5 s of retries: the write fails and the file is untouched.
TEST_F(ConfStore, SetupGivesUpWhenTheLockStaysTaken) {
    const std::string before = "[kept]\n\tproducer = old\n";
    qpt::write_file(kConf, before);
    LockHolder holder;
    PrinterConf c = record("kept");
    put(c.szProducer, "new");
    const time_t t0 = time(nullptr);
    qpt::LogCapture log;
    EXPECT_EQ(QORAPrinterConfSetup(&c, 0), -1);
    EXPECT_GE(time(nullptr) - t0, 4);
    EXPECT_EQ(QLIBCErrGet(), ERR_LOCK_FAILED);
    EXPECT_STREQ(QLIBCErrorGetFile(), "printer_conf_setup.cpp");
    EXPECT_EQ(qpt::read_file(kConf), before);
    EXPECT_EQ(log.count("printer_conf_setup.cpp"), 0u) << log.dump();
}

TEST_F(ConfStore, SetupNullRecordIsQuiet) {
    qpt::LogCapture log;
    EXPECT_EQ(QORAPrinterConfSetup(nullptr, 1), -1);
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
    EXPECT_STREQ(QLIBCErrorGetFile(), "printer_conf_setup.cpp");
    EXPECT_EQ(log.lines().size(), 0u) << log.dump();
    EXPECT_FALSE(qpt::exists(kConf));
}

// A new printer's section goes at the end, holding only the fields given, in
// the fixed key order; what was there stays byte for byte.
TEST_F(ConfStore, NewSectionIsAppendedWithNonEmptyFields) {
    const std::string before = "# printers\n[04a9:1827:OLD]\n\tproducer = Old\n\tdriver = d1\n";
    qpt::write_file(kConf, before);
    PrinterConf c = record("04a9:1827:A1B2C3");
    put(c.szFitToPage, "1");
    put(c.szUsblpStringId, "MFG:ACME;MDL:Laser 100;");
    put(c.szMode, "usbip");
    put(c.szProducer, "ACME");
    put(c.szAutoLockTimer, "30");
    put(c.szDetectedVendor, "not stored");
    ASSERT_EQ(QORAPrinterConfSetup(&c, 0), 0);

    const std::string after = qpt::read_file(kConf);
    ASSERT_EQ(after.compare(0, before.size(), before), 0) << after;
    std::string added = after.substr(before.size());
    added.erase(0, added.find_first_not_of('\n'));
    EXPECT_EQ(added,
              "[04a9:1827:A1B2C3]\n"
              "\tproducer = ACME\n"
              "\tmode = usbip\n"
              "\tautolock timer = 30\n"
              "\tusblp string id = MFG:ACME;MDL:Laser 100;\n"
              "\tfit to page = 1\n");
}

// Rewriting a section keeps the keys the record does not carry, and every
// other section's bytes, including ones the reader skips as garbage.
TEST_F(ConfStore, RewriteKeepsOtherKeysAndSections) {
    std::string binary;
    for (int b = 1; b < 256; ++b)
        if (b != '\n') binary += static_cast<char>(b);
    const std::string head = "garbage before any section\n[a]\n\tx = 1\nnot a pair\n\n; comment\n" + binary +
                             "\n\tlong = " + std::string(100 * 1024, 'L') + "\n";
    const std::string tail = "[b]\r\n\ty = 2\r\n" + std::string(100 * 1024, 'G') + "\n[a]\n\tx = duplicate\n";
    qpt::write_file(kConf, head + "[p]\n\tcups printer name = usbprinter1\n\tdriver = old\n\tmode = lpr\n" + tail);

    PrinterConf c = record("p");
    put(c.szMode, "usbip");
    put(c.szProducer, "ACME");
    ASSERT_EQ(QORAPrinterConfSetup(&c, 0), 0);

    const std::string after = qpt::read_file(kConf);
    ASSERT_GE(after.size(), head.size() + tail.size());
    EXPECT_EQ(after.compare(0, head.size(), head), 0) << "bytes before the section changed";
    EXPECT_EQ(after.compare(after.size() - tail.size(), tail.size(), tail), 0) << "bytes after the section changed";
    const auto p = section("p");
    EXPECT_EQ(p.at("cups printer name"), "usbprinter1");
    EXPECT_EQ(p.at("driver"), "old");
    EXPECT_EQ(p.at("mode"), "usbip");
    EXPECT_EQ(p.at("producer"), "ACME");
    EXPECT_EQ(p.size(), 4u);

    // The first of two sections of one name is the one written.
    PrinterConf a = record("a");
    put(a.szDriver, "da");
    ASSERT_EQ(QORAPrinterConfSetup(&a, 0), 0);
    const std::string again = qpt::read_file(kConf);
    EXPECT_EQ(again.substr(again.size() - std::strlen("[a]\n\tx = duplicate\n")), "[a]\n\tx = duplicate\n");
    EXPECT_EQ(section("a").at("driver"), "da");
    EXPECT_EQ(section("a").at("x"), "1");
}

TEST_F(ConfStore, ForceStoresEmptyDriverAndTimers) {
    qpt::write_file(kConf, "[p]\n\tdriver = foo\n\tdriver brand = Foo\n\tautolock timer = 5\n\tproducer = P\n");
    PrinterConf c = record("p");
    put(c.szMode, "lpr");

    ASSERT_EQ(QORAPrinterConfSetup(&c, 0), 0);
    auto s = section("p");
    EXPECT_EQ(s.at("driver"), "foo");
    EXPECT_EQ(s.at("driver brand"), "Foo");
    EXPECT_EQ(s.at("autolock timer"), "5");
    EXPECT_EQ(s.count("manuallock timer"), 0u);

    ASSERT_EQ(QORAPrinterConfSetup(&c, 1), 0);
    s = section("p");
    for (const char *k : {"driver", "driver brand", "autolock timer", "manuallock timer"}) {
        ASSERT_EQ(s.count(k), 1u) << k;
        EXPECT_EQ(s.at(k), "") << k;
    }
    // Forcing covers only those four keys.
    EXPECT_EQ(s.at("producer"), "P");
    EXPECT_EQ(s.count("product name"), 0u);
    EXPECT_EQ(s.count("fit to page"), 0u);
    EXPECT_EQ(s.at("mode"), "lpr");
}

// Fields filled to their last byte are read as texts of width less one: the
// section name never runs on into the next field.
TEST_F(ConfStore, LongPrinterIdsAndUnterminatedFields) {
    const std::string id127(127, 'i');
    PrinterConf c = record(id127);
    put(c.szProducer, "ACME");
    ASSERT_EQ(QORAPrinterConfSetup(&c, 0), 0);
    EXPECT_EQ(section(id127.c_str()).at("producer"), "ACME");

    PrinterConf full{};
    std::memset(full.szPrinterId, 'j', sizeof full.szPrinterId);
    std::memset(full.szAutoLockTimer, '9', sizeof full.szAutoLockTimer);
    std::memset(full.szManualLockTimer, '8', sizeof full.szManualLockTimer);
    put(full.szProducer, "X");
    ASSERT_EQ(QORAPrinterConfSetup(&full, 0), 0);
    const auto s = section(std::string(127, 'j').c_str());
    EXPECT_EQ(s.at("producer"), "X");
    EXPECT_EQ(s.at("autolock timer"), "999");
    EXPECT_EQ(s.at("manuallock timer"), "888");
}

// With the file unreadable the write fails on the core library's read and
// the file keeps its bytes.  Root passes permission checks, so the child
// gives up the capabilities that let it.
TEST_F(ConfStore, UnreadableFileIsNotOverwritten) {
    const std::string before = "[p]\n\tcups printer name = usbprinter2\n";
    qpt::write_file(kConf, before, 0000);
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    const int status = conft::in_child([&] {
        struct __user_cap_header_struct h = {_LINUX_CAPABILITY_VERSION_3, 0};
        struct __user_cap_data_struct d[2] = {};
        if (syscall(SYS_capget, &h, d) != 0) return 10;
        d[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
        if (syscall(SYS_capset, &h, d) != 0) return 11;
        if (open(kConf, O_RDONLY) >= 0) return 12;

        PrinterConf c = record("p");
        put(c.szProducer, "new");
        qpt::LogCapture log;
        const int rc = QORAPrinterConfSetup(&c, 0);
        char text[64];
        snprintf(text, sizeof text, "QLIBCFileAddSection failed.(0x%04X)", QLIBCErrGet());
        if (rc >= 0) return 20;
        if (log.count(3, text) != 1) return 21;

        char buf[32] = "keep";
        log.reset();
        if (QORAPrinterCupsNameGet("p", buf, sizeof buf) != -1) return 30;
        if (log.count(3, "get cups printer name failed, printer=p") != 1) return 31;
        return 0;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(qpt::read_file(kConf), before);
}

TEST_F(ConfStore, CupsNameGet) {
    qpt::write_file(kConf, "[p1]\n\tcups printer name = usbprinter1\n[p2]\n\tcups printer name = \n[p3]\n\tdriver = x\n");
    char buf[32] = {};
    EXPECT_EQ(QORAPrinterCupsNameGet("p1", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "usbprinter1");
    EXPECT_EQ(QORAPrinterCupsNameGet("p1", buf, 5), 0);
    EXPECT_STREQ(buf, "usbp");

    for (const char *id : {"p2", "p3", "nope"}) {
        SCOPED_TRACE(id);
        qpt::LogCapture log;
        EXPECT_EQ(QORAPrinterCupsNameGet(id, buf, sizeof buf), -1);
        auto lines = log.lines();
        ASSERT_EQ(lines.size(), 1u) << log.dump();
        EXPECT_EQ(lines[0].severity, 3);
        EXPECT_EQ(lines[0].text.substr(0, lines[0].text.find(':')), "printer_cups_name_get.cpp");
        EXPECT_NE(lines[0].text.find(std::string(" get cups printer name failed, printer=") + id), std::string::npos);
    }

    const char *bad_ids[] = {"p1", "p1", nullptr};
    char *bad_bufs[] = {nullptr, buf, buf};
    const int bad_sizes[] = {32, 0, 32};
    for (int i = 0; i < 3; ++i) {
        qpt::LogCapture log;
        EXPECT_EQ(QORAPrinterCupsNameGet(bad_ids[i], bad_bufs[i], bad_sizes[i]), -1);
        EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
        EXPECT_STREQ(QLIBCErrorGetFile(), "printer_cups_name_get.cpp");
        EXPECT_EQ(log.lines().size(), 0u) << log.dump();
    }
}

// Every path gives back its descriptors: the lock, the file reads.
TEST_F(ConfStore, NoDescriptorLeaks) {
    qpt::write_file(kConf, "[p]\n\tcups printer name = q\n");
    QORAPrinterPrinterConfUnlock(-1);  // opens the syslog socket once
    const int before = qpt::open_fd_count();
    char buf[16];
    PrinterConf c = record("p");
    put(c.szProducer, "x");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(QORAPrinterConfSetup(&c, i & 1), 0);
        EXPECT_EQ(QORAPrinterCupsNameGet("p", buf, sizeof buf), 0);
        EXPECT_EQ(QORAPrinterCupsNameGet("none", buf, sizeof buf), -1);
        PrinterGoogleInfo g{};
        std::strcpy(g.szAccount, "a");
        std::strcpy(g.szPassword, "p");
        EXPECT_EQ(QORAPrinterGoogleInfoSet(&g), 0);
        EXPECT_EQ(QORAPrinterGoogleInfoGet(&g), 0);
        EXPECT_EQ(QORAPrinterModelDetect(&c), -1);
    }
    EXPECT_EQ(qpt::open_fd_count(), before);
}

// Several processes writing their own sections at once lose nothing.
TEST_F(ConfStore, ConcurrentWritersOfDistinctSections) {
    qpt::write_file(kConf, "[base]\n\tproducer = B\n");
    constexpr int kProcs = 6, kRounds = 8;
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    pid_t pids[kProcs];
    for (int i = 0; i < kProcs; ++i) {
        pids[i] = fork();
        if (pids[i] == 0) {
            close(go[1]);
            char c;
            (void)!read(go[0], &c, 1);
            for (int r = 0; r < kRounds; ++r) {
                PrinterConf pc = record("w" + std::to_string(i));
                put(pc.szProducer, "round" + std::to_string(r));
                put(pc.szDriver, "d" + std::to_string(i));
                if (QORAPrinterConfSetup(&pc, 0) != 0) _exit(1);
            }
            _exit(0);
        }
    }
    close(go[0]);
    close(go[1]);  // everyone starts at once
    for (pid_t pid : pids) {
        int st = 0;
        waitpid(pid, &st, 0);
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
    }
    EXPECT_EQ(section("base").at("producer"), "B");
    for (int i = 0; i < kProcs; ++i) {
        const auto s = section(("w" + std::to_string(i)).c_str());
        ASSERT_EQ(s.size(), 2u) << "w" << i;
        EXPECT_EQ(s.at("producer"), "round" + std::to_string(kRounds - 1));
        EXPECT_EQ(s.at("driver"), "d" + std::to_string(i));
    }
    const std::string text = qpt::read_file(kConf);
    size_t headers = 0;
    for (size_t at = 0; (at = text.find("\n[", at)) != std::string::npos; ++at) ++headers;
    EXPECT_EQ(headers + 1, static_cast<size_t>(kProcs + 1)) << text;
}

// A writer killed at any moment leaves the file as it was before or after
// one whole write, never a mix.
TEST_F(ConfStore, KilledWriterLeavesOldOrNewFile) {
    qpt::write_file(kConf, "[first]\n\tproducer = F\n[p]\n\tmode = lpr\n[last]\n\tproducer = L\n" +
                               std::string(64 * 1024, '#') + "\n");
    PrinterConf a = record("p"), b = record("p");
    put(a.szProducer, std::string(100, 'a'));
    put(a.szUsblpStringId, std::string(1000, 'A'));
    put(b.szProducer, "b");
    put(b.szUsblpStringId, "B");
    ASSERT_EQ(QORAPrinterConfSetup(&a, 0), 0);
    const std::string fa = qpt::read_file(kConf);
    ASSERT_EQ(QORAPrinterConfSetup(&b, 0), 0);
    const std::string fb = qpt::read_file(kConf);
    ASSERT_EQ(QORAPrinterConfSetup(&a, 0), 0);
    ASSERT_EQ(qpt::read_file(kConf), fa);
    ASSERT_NE(fa, fb);

    std::mt19937 rng(12345);
    for (int round = 0; round < 40; ++round) {
        pid_t pid = fork();
        if (pid == 0) {
            for (;;) {
                QORAPrinterConfSetup(&b, 0);
                QORAPrinterConfSetup(&a, 0);
            }
        }
        sleep_ms(static_cast<int>(rng() % 25));
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        const std::string now = qpt::read_file(kConf);
        ASSERT_TRUE(now == fa || now == fb) << "round " << round << ": file is neither version (" << now.size()
                                            << " bytes)";
    }
    // The lock died with the writer.
    const int fd = QORAPrinterPrinterConfLock();
    EXPECT_GE(fd, 0);
    QORAPrinterPrinterConfUnlock(fd);
}

}  // namespace
