// printer.conf: the configuration lock, writing a USB printer's section and
// reading its queue name, against hostile files, other processes and
// writers killed half way.
#include <fcntl.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <map>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "conf_test_util.hpp"
#include "qoracore.h"
#include "qoraprinter.h"
#include "qp_test.hpp"

namespace {

using conft::kConf;
using conft::put;
using conft::section;
using Keys = std::map<std::string, std::string>;

// Takes the configuration lock and leaves its flock to a child for hold_ms
// (until destroyed when negative).
struct LockHolder {
    pid_t pid = -1;
    explicit LockHolder(int hold_ms = -1) {
        const int fd = QORAPrinterPrinterConfLock();
        EXPECT_GE(fd, 0);
        if ((pid = fork()) == 0) _exit(hold_ms < 0 ? pause() : usleep(hold_ms * 1000));
        close(fd);
    }
    ~LockHolder() { kill(pid, SIGKILL); waitpid(pid, nullptr, 0); }
};

PrinterConf record(const std::string &id) {
    PrinterConf c{};
    put(c.szPrinterId, id);
    return c;
}

class ConfStore : public conft::ConfTest {};

// A short holder is waited for, unlock releases; held for good, the lock makes
// a write give up after its ~5 s of retries, quietly, file untouched.
TEST_F(ConfStore, LockIsWaitedForReleasedAndGivenUp) {
    {
        LockHolder holder(300);
        EXPECT_EQ(QORAPrinterPrinterConfUnlock(QORAPrinterPrinterConfLock()), 1);
    }
    const std::string before = "[kept]\n\tproducer = old\n";
    qpt::write_file(kConf, before);
    LockHolder holder;  // takes the lock just released
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

// Unlock logs its descriptor check; the other bad arguments fail quietly with
// the code and place in the error slot, and touch no file.
TEST_F(ConfStore, BadArguments) {
    const std::string before = "[p]\n\tcups printer name = q\n";
    qpt::write_file(kConf, before);
    qpt::LogCapture log;
    EXPECT_EQ(QORAPrinterPrinterConfUnlock(-1), 0);
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
    EXPECT_STREQ(QLIBCErrorGetFile(), "printer_conf_unlock.cpp");
    const std::string want = " Invaild Argument (0 <= fdLock)=[0]";
    EXPECT_EQ(log.count(3, "printer_conf_unlock.cpp:" + std::to_string(QLIBCErrorGetLine()) + want), 1u) << log.dump();

    log.reset();
    char buf[32];
    EXPECT_EQ(QORAPrinterCupsNameGet("p", buf, 0), -1);
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
    EXPECT_STREQ(QLIBCErrorGetFile(), "printer_cups_name_get.cpp");
    EXPECT_EQ(QORAPrinterConfSetup(nullptr, 1), -1);
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
    EXPECT_STREQ(QLIBCErrorGetFile(), "printer_conf_setup.cpp");
    // A descriptor that cannot be closed answers 0, without the argument
    // message.  (Closing a real one twice could hit a reused number.)
    EXPECT_EQ(QORAPrinterPrinterConfUnlock(INT_MAX), 0);
    EXPECT_EQ(log.lines().size(), 0u) << log.dump();
    EXPECT_EQ(qpt::read_file(kConf), before);
}

// A new printer's section goes at the end, holding only the fields given, in
// the fixed key order; what was there stays byte for byte.  Fields filled to
// their last byte are read as texts of width less one.
TEST_F(ConfStore, NewSectionIsAppendedWithNonEmptyFields) {
    const std::string before = "# printers\n[04a9:1827:OLD]\n\tproducer = Old\n\tdriver = d1\n";
    qpt::write_file(kConf, before);
    PrinterConf c{};
    std::memset(c.szPrinterId, 'j', sizeof c.szPrinterId);
    std::memset(c.szAutoLockTimer, '9', sizeof c.szAutoLockTimer);
    std::memset(c.szManualLockTimer, '8', sizeof c.szManualLockTimer);
    put(c.szFitToPage, "1");
    put(c.szUsblpStringId, "MFG:ACME;MDL:Laser 100;");
    put(c.szMode, "usbip");
    put(c.szProducer, "ACME");
    put(c.szDetectedVendor, "not stored");
    ASSERT_EQ(QORAPrinterConfSetup(&c, 0), 0);

    const std::string after = qpt::read_file(kConf);
    ASSERT_EQ(after.compare(0, before.size(), before), 0) << after;
    std::string added = after.substr(before.size());
    added.erase(0, added.find_first_not_of('\n'));
    EXPECT_EQ(added, "[" + std::string(127, 'j') +
                         "]\n\tproducer = ACME\n\tmode = usbip\n\tautolock timer = 999\n\tmanuallock timer = 888\n"
                         "\tusblp string id = MFG:ACME;MDL:Laser 100;\n\tfit to page = 1\n");
}

// Rewriting a section keeps the keys the record does not carry, and every
// other section's bytes, including ones the reader skips as garbage.  Forcing
// stores the driver and both timers even when empty, and only those.  Of two
// sections of one name the first is the one written.
TEST_F(ConfStore, RewriteKeepsOtherKeysAndSections) {
    std::string binary;
    for (int b = 1; b < 256; ++b)
        if (b != '\n') binary += static_cast<char>(b);
    const std::string head = "garbage before any section\n[a]\n\tx = 1\nnot a pair\n\n; comment\n" + binary +
                             "\n\tlong = " + std::string(100 * 1024, 'L') + "\n";
    const std::string dup = "[a]\n\tx = duplicate\n";
    const std::string tail = "[b]\r\n\ty = 2\r\n" + std::string(100 * 1024, 'G') + "\n" + dup;
    qpt::write_file(kConf, head + "[p]\n\tcups printer name = queue1\n\tdriver = old\n\tautolock timer = 5\n" + tail);

    PrinterConf c = record("p");
    put(c.szMode, "usbip");
    put(c.szProducer, "ACME");
    for (int force : {0, 1}) {
        ASSERT_EQ(QORAPrinterConfSetup(&c, force), 0);
        const std::string after = qpt::read_file(kConf);
        ASSERT_GE(after.size(), head.size() + tail.size());
        EXPECT_EQ(after.compare(0, head.size(), head), 0) << "bytes before the section changed";
        EXPECT_EQ(after.compare(after.size() - tail.size(), tail.size(), tail), 0) << "bytes after it changed";
    }
    EXPECT_EQ(section("p"), (Keys{{"cups printer name", "queue1"}, {"driver", ""}, {"driver brand", ""},
                                  {"autolock timer", ""}, {"manuallock timer", ""}, {"mode", "usbip"},
                                  {"producer", "ACME"}}));

    PrinterConf a = record("a");
    put(a.szDriver, "da");
    ASSERT_EQ(QORAPrinterConfSetup(&a, 0), 0);
    const std::string again = qpt::read_file(kConf);
    EXPECT_EQ(again.substr(again.size() - dup.size()), dup);
    const auto sa = section("a");
    EXPECT_TRUE(sa.at("driver") == "da" && sa.at("x") == "1");
}

// With the file unreadable the write fails on the core library's read and
// the file keeps its bytes.  Root passes permission checks, so the child
// gives up the capabilities that let it.
TEST_F(ConfStore, UnreadableFileIsNotOverwritten) {
    const std::string before = "[p]\n\tcups printer name = usbprinter2\n";
    qpt::write_file(kConf, before, 0000);
    const int status = conft::in_child([&] {
        struct __user_cap_header_struct h = {_LINUX_CAPABILITY_VERSION_3, 0};
        struct __user_cap_data_struct d[2] = {};
        if (syscall(SYS_capget, &h, d) != 0) return 10;
        d[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
        if (syscall(SYS_capset, &h, d) != 0 || open(kConf, O_RDONLY) >= 0) return 11;

        PrinterConf c = record("p");
        put(c.szProducer, "new");
        qpt::LogCapture log;
        const int rc = QORAPrinterConfSetup(&c, 0);
        char text[64];
        snprintf(text, sizeof text, "QLIBCFileAddSection failed.(0x%04X)", QLIBCErrGet());
        if (rc >= 0 || log.count(3, text) != 1) return 20;
        char buf[32] = "keep";
        log.reset();
        if (QORAPrinterCupsNameGet("p", buf, sizeof buf) != -1) return 30;
        return log.count(3, "get cups printer name failed, printer=p") == 1 ? 0 : 31;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(qpt::read_file(kConf), before);
}

TEST_F(ConfStore, CupsNameGet) {
    qpt::write_file(kConf, "[p1]\n\tcups printer name = queue1\n[p2]\n\tcups printer name = \n[p3]\n\tdriver = x\n");
    char buf[32] = {};
    EXPECT_EQ(QORAPrinterCupsNameGet("p1", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "queue1");
    EXPECT_EQ(QORAPrinterCupsNameGet("p1", buf, 5), 0);
    EXPECT_STREQ(buf, "queu");

    for (const std::string id : {"p2", "p3", "nope"}) {
        qpt::LogCapture log;
        EXPECT_EQ(QORAPrinterCupsNameGet(id.c_str(), buf, sizeof buf), -1) << id;
        const auto lines = log.lines();
        ASSERT_EQ(lines.size(), 1u) << log.dump();
        const std::regex want("printer_cups_name_get\\.cpp:[0-9]+ get cups printer name failed, printer=" + id);
        EXPECT_TRUE(lines[0].severity == 3 && std::regex_match(lines[0].text, want)) << lines[0].text;
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
        PrinterGoogleInfo g{"a", "p", ""};
        EXPECT_EQ(QORAPrinterGoogleInfoSet(&g), 0);
        EXPECT_EQ(QORAPrinterGoogleInfoGet(&g), 0);
        EXPECT_EQ(QORAPrinterModelDetect(&c), -1);
    }
    EXPECT_EQ(qpt::open_fd_count(), before);
}

// Several processes writing their own sections at once lose nothing and
// never duplicate a section.
TEST_F(ConfStore, ConcurrentWritersOfDistinctSections) {
    qpt::write_file(kConf, "[base]\n\tproducer = B\n");
    constexpr int kProcs = 6, kRounds = 8;
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    pid_t pids[kProcs];
    for (int i = 0; i < kProcs; ++i) {
        if ((pids[i] = fork()) == 0) {
            close(go[1]);
            if (char c; read(go[0], &c, 1) < 0) _exit(2);
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
        EXPECT_TRUE(waitpid(pid, &st, 0) == pid && WIFEXITED(st) && WEXITSTATUS(st) == 0);
    }
    EXPECT_EQ(section("base").at("producer"), "B");
    for (int i = 0; i < kProcs; ++i) {
        EXPECT_EQ(section(("w" + std::to_string(i)).c_str()),
                  (Keys{{"producer", "round" + std::to_string(kRounds - 1)}, {"driver", "d" + std::to_string(i)}}));
    }
    const std::string text = qpt::read_file(kConf);
    EXPECT_EQ(std::count(text.begin(), text.end(), '['), kProcs + 1) << text;
}

// A writer killed at any moment leaves the file as it was before or after
// one whole write, never a mix; the lock dies with it.
TEST_F(ConfStore, KilledWriterLeavesOldOrNewFile) {
    qpt::write_file(kConf, "[first]\n\tproducer = F\n[p]\n\tmode = lpr\n[last]\n\tproducer = L\n" +
                               std::string(64 * 1024, '#') + "\n");
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
