// CUPS queues against the real scheduler: what lpstat, lpq, printers.conf
// and the PPD directory show afterwards, the exact argument vectors (seen
// through recording copies of the tools) and the messages and error codes.
#include <errno.h>
#include <string.h>
#include <syslog.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cupsd_fixture.hpp"
#include "qoraprinter.h"
#include "qp_test.hpp"

using qpcups::Cupsd;

namespace {

using Argv = std::vector<std::string>;

// Puts tool_recorder.sh in a tool's place for one test and reads what it saw.
class Recorder {
public:
    // Replaces tool (e.g. "/usr/bin/lpadmin") with a recording copy that runs
    // the program (or link) that stood there, kept meanwhile in a ".qp-saved"
    // directory beside it.  The destructor puts it back.
    explicit Recorder(const std::string &tool) : tool_(tool) {
        const size_t slash = tool_.rfind('/');
        dir_ = "/run/qp-rec/" + tool_.substr(slash + 1) + "/";
        saved_ = tool_.substr(0, slash) + "/.qp-saved/" + tool_.substr(slash + 1);
        qpt::run({"/bin/rm", "-rf", dir_});
        qpt::mkdirs(dir_);
        qpt::mkdirs(tool_.substr(0, slash) + "/.qp-saved");
        EXPECT_EQ(rename(tool_.c_str(), saved_.c_str()), 0) << tool_ << ": " << strerror(errno);
        qpt::write_file(tool_, qpt::read_file(qpt::source_path("tests/cups/tool_recorder.sh")), 0755);
    }
    ~Recorder() { rename(saved_.c_str(), tool_.c_str()); }

    // The next n runs exit with status (negative: die by that signal).
    void fail_next(int n, int status) { control("fail", std::to_string(n) + " " + std::to_string(status)); }
    // Every run prints this instead of running the real tool.
    void play(const std::string &output) { control("output", output); }

    std::vector<Argv> runs() const {
        std::vector<Argv> all;
        std::istringstream in(qpt::read_file(dir_ + "log"));
        for (std::string line; std::getline(in, line);) {
            std::istringstream args(line);
            all.emplace_back();
            for (std::string arg; std::getline(args, arg, '\x1f');) all.back().push_back(arg);
        }
        return all;
    }
    void forget() { qpt::remove_file(dir_ + "log"); }

private:
    void control(const char *file, const std::string &text) { qpt::write_file(dir_ + file, text); }
    std::string tool_, dir_, saved_;
};

constexpr const char *kConf = "/usr/qora/etc/printer.conf";
const std::string kId1 = "04a9:1827:AAA111", kId2 = "04a9:1827:BBB222", kId3 = "04a9:1827:CCC333";

Cupsd g_cupsd;  // stops the scheduler at exit (outside the sandbox the program never starts)

// No test runs without the scheduler.
struct CupsEnv : ::testing::Environment {
    void SetUp() override { ASSERT_TRUE(g_cupsd.start()); }
};
const auto *const kEnv = ::testing::AddGlobalTestEnvironment(new CupsEnv);

std::string usb_uri(const std::string &id) { return "usb:/dev/usb/" + id; }

std::string stored_name(const std::string &id) {
    char buf[64] = {0};
    return QORAPrinterCupsNameGet(id.c_str(), buf, sizeof buf) == 0 ? buf : "";
}

void store_name(const std::string &id, const char *queue) {
    ASSERT_EQ(QLIBCFileSetSectionValue(kConf, id.c_str(), "cups printer name", queue), 0);
}

// One run of the program per last argument: each({"/usr/bin/lpadmin", "-x"}, {"a", "b"}).
std::vector<Argv> each(const Argv &head, const std::vector<std::string> &lasts) {
    std::vector<Argv> runs;
    for (const std::string &last : lasts) runs.push_back(head), runs.back().push_back(last);
    return runs;
}

// lpadmin's arguments for a new queue: -L with this host's name, -P only with a PPD.
Argv add_argv(const std::string &queue, const std::string &uri, const std::string &ppd = "") {
    char host[64] = {0};
    gethostname(host, sizeof host);
    Argv argv = {"/usr/bin/lpadmin", "-p", queue, "-E", "-v", uri, "-L", host};
    if (!ppd.empty()) argv.insert(argv.end(), {"-P", ppd});
    return argv;
}

class CupsTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(g_cupsd.start());
        Cupsd::remove_all_queues();
        qpt::run({"/bin/rm", "-rf", qpcups::kPpdDir});
        // Sections for the USB printers; the queue name is written into them.
        qpt::write_file(kConf, "[" + kId1 + "]\n\tproducer = Acme\n[" + kId2 + "]\n\tproducer = Acme\n[" + kId3 +
                                   "]\n\tproducer = Acme\n");
        log_.reset();
        fds_ = qpt::open_fd_count();
    }
    void TearDown() override {
        umount2("/etc/cups", MNT_DETACH);  // a test's tmpfs, if still there
        EXPECT_EQ(qpt::open_fd_count(), fds_) << "descriptors leaked";
        if (HasFailure()) fprintf(stderr, "syslog:\n%s", log_.dump().c_str());
    }
    void expect_code(unsigned code, const char *file) {
        EXPECT_EQ(QLIBCErrGet(), code);
        EXPECT_STREQ(QLIBCErrorGetFile(), file);
    }
    qpt::LogCapture log_;
    int fds_ = 0;
};

TEST_F(CupsTest, NameCheckIsDecidedByTheFirstListingLineAndRetriesAFailedListing) {
    ASSERT_TRUE(Cupsd::add_queue("usbprinter1", usb_uri(kId1)));
    ASSERT_TRUE(Cupsd::add_queue("usbprinter10", usb_uri(kId3)));
    EXPECT_EQ(QORAPrinterCupsNameCheck(kId1.c_str(), "usbprinter1"), 1);
    // usbprinter10's own printer is judged by usbprinter1's line first.
    EXPECT_EQ(QORAPrinterCupsNameCheck(kId3.c_str(), "usbprinter1"), 2);
    EXPECT_EQ(QORAPrinterCupsNameCheck(kId1.c_str(), "usbprinter3"), 0);

    // Lines of more than 1023 characters arrive as separate pieces.
    Recorder lpstat("/usr/bin/lpstat");
    lpstat.play("device for other: usb:/dev/usb/" + std::string(1100, 'x') + " usbprinter1 04a9:1827:LONG\n");
    EXPECT_EQ(QORAPrinterCupsNameCheck("04a9:1827:LONG", "usbprinter1"), 1);

    // A listing whose program dies is taken again, 3 times, 1 s apart.
    lpstat.forget();
    lpstat.fail_next(3, -9);
    EXPECT_EQ(QORAPrinterCupsNameCheck(kId1.c_str(), "usbprinter1"), -1);
    expect_code(ERR_EXTERNAL_FAILED, "printer_cups_name_check.cpp");
    EXPECT_EQ(lpstat.runs().size(), 3u);

    // A stopped service has no queues and is not asked.
    lpstat.forget();
    g_cupsd.stop();
    EXPECT_EQ(QORAPrinterCupsNameCheck(kId1.c_str(), "usbprinter1"), 0);
    EXPECT_TRUE(lpstat.runs().empty());
}

TEST_F(CupsTest, EnableSwitchesUsbprinter1WithItsTwin) {
    for (const char *q : {"usbprinter1", "usbprinter", "usbprinter2"}) ASSERT_TRUE(Cupsd::add_queue(q, usb_uri(kId1)));
    Recorder disable("/usr/bin/cupsdisable");
    // Only the name usbprinter1, in any case, has a twin; a name over 127 characters is refused, never cut.
    EXPECT_EQ(QORAPrinterCupsPrinterEnable("UsbPrinter1", 0), 0);
    EXPECT_EQ(QORAPrinterCupsPrinterEnable(std::string(200, 'q').c_str(), 0), -1);
    EXPECT_EQ(QORAPrinterCupsPrinterEnable("usbprinter2", 0), 0);
    EXPECT_EQ(disable.runs(), each({"/usr/bin/cupsdisable"}, {"UsbPrinter1", "usbprinter", "usbprinter2"}));
    EXPECT_EQ(QORAPrinterCupsPrinterEnable("usbprinter1", 1), 0);
    EXPECT_FALSE(Cupsd::is_stopped("usbprinter"));
}

TEST_F(CupsTest, PpdReadReturnsTheWholeFile) {
    qpt::mkdirs("/etc/cups/ppd/dir.ppd");
    // A real PPD with a last line lacking its newline.
    const std::string text = qpt::read_file(qpcups::kPpdGeneric) + "*Last: \"no newline\"";
    qpt::write_file("/etc/cups/ppd/model.ppd", text);
    char *const got = QORACupsGetPPD("model");
    EXPECT_EQ(got ? std::string(got) : "<NULL>", text);
    free(got);
    // No text is NULL without an error.
    qpt::write_file("/etc/cups/ppd/empty.ppd", "");
    for (const auto &[name, code] : {std::pair{"empty", 0u}, {"missing", ERR_OPEN_FAILED}, {"dir", ERR_READ_FAILED}}) {
        QLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(QORACupsGetPPD(name), nullptr);
        EXPECT_EQ(QLIBCErrGet(), code) << name;
    }
}

TEST_F(CupsTest, AddGivesUsbprinter1ThenUsbprinter2AndRefusesAThird) {
    Recorder lpadmin("/usr/bin/lpadmin");
    Recorder disable("/usr/bin/cupsdisable");
    ASSERT_EQ(QORAPrinterCupsAdd(kId1.c_str(), nullptr), 0);
    EXPECT_EQ(lpadmin.runs(), (std::vector<Argv>{add_argv("usbprinter1", usb_uri(kId1)),
                                                 add_argv("usbprinter", usb_uri(kId1))}));
    // Stopping usbprinter1 also stops its twin, which does not exist yet.
    EXPECT_EQ(disable.runs(), each({"/usr/bin/cupsdisable"}, {"usbprinter1", "usbprinter", "usbprinter"}));
    EXPECT_TRUE(Cupsd::is_stopped("usbprinter1") && Cupsd::is_stopped("usbprinter"));
    EXPECT_EQ(stored_name(kId1), "usbprinter1");

    // The second printer, with a PPD whose path holds blanks: no twin, the
    // PPD is kept by printer ID in a directory made for it.
    const std::string ppd = "/tmp/my ppds/office laser.ppd";
    qpt::write_file(ppd, qpt::read_file(qpcups::kPpdGeneric));
    lpadmin.forget();
    ASSERT_EQ(QORAPrinterCupsAdd(kId2.c_str(), ppd.c_str()), 0);
    EXPECT_EQ(qpt::read_file("/etc/cups/ppd/" + kId2 + ".ppd"), qpt::read_file(ppd));
    EXPECT_EQ(lpadmin.runs(), std::vector<Argv>{add_argv("usbprinter2", usb_uri(kId2), ppd)});
    EXPECT_EQ(stored_name(kId2), "usbprinter2");

    // Both names taken: nothing changes.
    const std::string conf = qpt::read_file(kConf);
    lpadmin.forget();
    EXPECT_EQ(QORAPrinterCupsAdd(kId3.c_str(), nullptr), -1);
    EXPECT_TRUE(lpadmin.runs().empty());
    EXPECT_EQ(qpt::read_file(kConf), conf);
}

TEST_F(CupsTest, AddKeepsAValidStoredNameAndReplacesOneThatMovedAway) {
    // Stored usbprinter2 still on this printer's device: kept though usbprinter1 is free.
    ASSERT_TRUE(Cupsd::add_queue("usbprinter2", usb_uri(kId1)));
    store_name(kId1, "usbprinter2");
    ASSERT_EQ(QORAPrinterCupsAdd(kId1.c_str(), nullptr), 0);
    EXPECT_EQ(stored_name(kId1), "usbprinter2");
    EXPECT_FALSE(Cupsd::has_queue("usbprinter1"));

    // Stored usbprinter2 now on another device; usbprinter10 makes usbprinter1 look taken.
    ASSERT_TRUE(Cupsd::add_queue("usbprinter10", usb_uri(kId3)));
    store_name(kId2, "usbprinter2");
    EXPECT_EQ(QORAPrinterCupsAdd(kId2.c_str(), nullptr), -1);
    EXPECT_EQ(Cupsd::uri_of("usbprinter2"), usb_uri(kId1));

    // With usbprinter2 gone, the moved name is replaced by the free one.
    ASSERT_EQ(qpt::run({"/usr/sbin/lpadmin", "-x", "usbprinter2"}).status, 0);
    ASSERT_TRUE(Cupsd::add_queue("usbprinter1", usb_uri(kId3)));
    store_name(kId2, "usbprinter1");
    ASSERT_EQ(QORAPrinterCupsAdd(kId2.c_str(), nullptr), 0);
    EXPECT_EQ(stored_name(kId2), "usbprinter2");
    EXPECT_EQ(Cupsd::uri_of("usbprinter2"), usb_uri(kId2));
    EXPECT_EQ(Cupsd::uri_of("usbprinter1"), usb_uri(kId3));
}

TEST_F(CupsTest, AddRetriesLpadminFailsOnBadPpdPathsAndStartsTheService) {
    Recorder lpadmin("/usr/bin/lpadmin");
    lpadmin.fail_next(2, 1);
    ASSERT_EQ(QORAPrinterCupsAdd(kId1.c_str(), nullptr), 0);
    EXPECT_EQ(lpadmin.runs().size(), 4u);  // usbprinter1 three times, its twin once

    // A missing PPD stops the call after the name was stored.
    lpadmin.forget();
    EXPECT_EQ(QORAPrinterCupsAdd(kId2.c_str(), "/tmp/none.ppd"), -1);
    EXPECT_TRUE(lpadmin.runs().empty());
    EXPECT_EQ(stored_name(kId2), "usbprinter2");

    // A directory cannot be copied nor used: three failed runs, then -1.
    qpt::mkdirs("/tmp/ppd.dir");
    EXPECT_EQ(QORAPrinterCupsAdd(kId2.c_str(), "/tmp/ppd.dir"), -1);
    EXPECT_EQ(lpadmin.runs().size(), 3u);

    g_cupsd.stop();
    Recorder cupsd("/usr/sbin/cupsd");
    cupsd.fail_next(1, 1);
    EXPECT_EQ(QORAPrinterCupsAdd(kId1.c_str(), nullptr), -1);
    EXPECT_EQ(log_.count(LOG_ERR, "start cupsd failed. [0x2A00 "), 1u);
}

TEST_F(CupsTest, NetAddBuildsTheUriFromTheRecordRetriesAndKeepsThePpdByPrinterId) {
    Recorder lpadmin("/usr/bin/lpadmin");
    PrinterNetConf conf = {};
    strcpy(conf.szIP, "192.168.1.20");
    strcpy(conf.szCupsPrinterName, "lab");
    strcpy(conf.szBackend, "ipp");
    strcpy(conf.szQName, "printers/lab");
    strcpy(conf.szPrinterId, "192.168.1.20-lab");
    lpadmin.fail_next(2, 1);
    ASSERT_EQ(QORAPrinterNetCupsAdd(&conf, qpcups::kPpdGeneric), 0);
    EXPECT_EQ(lpadmin.runs().size(), 3u);
    EXPECT_EQ(Cupsd::uri_of("lab"), "ipp://192.168.1.20/printers/lab");
    EXPECT_FALSE(Cupsd::is_stopped("lab"));

    // Again without a PPD, an empty remote queue and the service down:
    // it is started, the kept copy is used and the URI ends in "/".
    strcpy(conf.szBackend, "socket");
    conf.szQName[0] = 0;
    lpadmin.forget();
    g_cupsd.stop();
    ASSERT_EQ(QORAPrinterNetCupsAdd(&conf, nullptr), 0);
    EXPECT_EQ(Cupsd::uri_of("lab"), "socket://192.168.1.20/");
    EXPECT_EQ(lpadmin.runs(),
              std::vector<Argv>{add_argv("lab", "socket://192.168.1.20/", "/etc/cups/ppd/192.168.1.20-lab.ppd")});
}

TEST_F(CupsTest, RemovalTakesTheTwinAndOnlyTheQueueOfThisPrinter) {
    for (const char *q : {"usbprinter1", "usbprinter"}) ASSERT_TRUE(Cupsd::add_queue(q, usb_uri(kId1)));
    ASSERT_TRUE(Cupsd::add_queue("usbprinter2", usb_uri(kId3)));
    store_name(kId1, "usbprinter1");
    store_name(kId2, "usbprinter2");
    Recorder lpadmin("/usr/bin/lpadmin");

    // usbprinter2 serves another device now: nothing is removed.
    EXPECT_EQ(QORAPrinterCupsRm(kId2.c_str()), -1);
    EXPECT_TRUE(lpadmin.runs().empty());

    ASSERT_EQ(QORAPrinterCupsRm(kId1.c_str()), 0);
    EXPECT_EQ(stored_name(kId1), "usbprinter1");  // the key stays
    // By name: only the exact "usbprinter1" has a twin; a missing queue counts as removed.
    EXPECT_EQ(QORAPrinterCupsRmByName("USBprinter1"), 0);
    EXPECT_EQ(QORAPrinterCupsRmByName("usbprinter2"), 0);
    EXPECT_EQ(lpadmin.runs(),
              each({"/usr/bin/lpadmin", "-x"}, {"usbprinter1", "usbprinter", "USBprinter1", "usbprinter2"}));

    // Network printers: by stored name, without a listing check.
    qpt::write_file(kConf, "[10.0.0.7-net]\n\tcups printer name = net\n", 0644);
    ASSERT_TRUE(Cupsd::add_queue("net", "socket://10.0.0.7/"));
    EXPECT_EQ(QORAPrinterNetCupsRm("10.0.0.7-net"), 0);
    EXPECT_FALSE(Cupsd::has_queue("net"));
    EXPECT_EQ(QORAPrinterNetCupsRm("10.0.0.8-none"), -1);
}

TEST_F(CupsTest, ScrubDropsUsbBlocksAtomicallyOnlyWhileCupsdIsStopped) {
    // The running scheduler would write its own file back over the edit.
    EXPECT_EQ(QORAPrinterCupsUsbConfRmAll(), -1);
    expect_code(ERR_SERVICE_RUNNING, "printer_cups_usb_conf_rm_all.cpp");

    // Stopped: only the USB names go; indented and other tags are copied, CRLF lines match, a long
    // line stays one line (its tail is no header), an unclosed block runs to the end; mode and owner
    // kept, no copy left.
    g_cupsd.stop();
    const std::string head = "# head\r\n<Printer office>\nkeep0\n</Printer>\n<Printer usbprinter10>\n</Printer>\n";
    const std::string kept = "  <Printer usbprinter1>\nkeep1\n</Printer>\n<Class usbprinter2>\nkeep2\n</Class>\n" +
                             std::string(1023, 'x') + "<Printer usbprinter2>\ndropped\n</Printer>\nkeep3\n";
    qpt::write_file(qpcups::kPrintersConf,
                    head + "<Printer usbprinter>\r\nInfo a\r\n</Printer>\r\n" + kept + "<Printer usbprinter1>\nlost\n",
                    0600);
    ASSERT_EQ(chown(qpcups::kPrintersConf, 0, 7), 0);
    ASSERT_EQ(QORAPrinterCupsUsbConfRmAll(), 0);
    EXPECT_EQ(qpt::read_file(qpcups::kPrintersConf), head + kept);
    struct stat after = {};
    ASSERT_EQ(stat(qpcups::kPrintersConf, &after), 0);
    EXPECT_EQ(after.st_mode & 07777, 0600u);
    EXPECT_EQ(after.st_gid, 7u);
    EXPECT_EQ(qpt::run({"/usr/bin/find", "/etc/cups", "-name", "printers.conf.??????"}).out, "");

    unlink(qpcups::kPrintersConf);
    EXPECT_EQ(QORAPrinterCupsUsbConfRmAll(), 0);
    EXPECT_FALSE(qpt::exists(qpcups::kPrintersConf));
    EXPECT_EQ(log_.lines().size(), 1u);  // only the refusal above

    // On a 3-page tmpfs the 2-page file fits, its copy does not, and the failure shows only at the flush.
    ASSERT_EQ(mount("tmpfs", "/etc/cups", "tmpfs", 0, "size=12k,mode=0755"), 0) << strerror(errno);
    std::string text = "<Printer usbprinter1>\nInfo x\n</Printer>\n";
    while (text.size() < 7000) text += "# keep this line of the scheduler's own file\n";
    qpt::write_file(qpcups::kPrintersConf, text, 0600);
    EXPECT_EQ(QORAPrinterCupsUsbConfRmAll(), -1);
    expect_code(ERR_WRITE_FAILED, "printer_cups_usb_conf_rm_all.cpp");
    EXPECT_EQ(qpt::read_file(qpcups::kPrintersConf), text);
    EXPECT_EQ(log_.lines().size(), 1u);
}

TEST_F(CupsTest, PrintSubmitsToTheStoredQueueAndJobWaitSeesTheJob) {
    ASSERT_TRUE(Cupsd::add_queue("usbprinter2", usb_uri(kId1)));
    ASSERT_EQ(QORAPrinterCupsPrinterEnable("usbprinter2", 0), 0);
    store_name(kId1, "usbprinter2");
    Recorder lpr("/usr/bin/lpr");

    qpt::write_file("/tmp/job one.txt", std::string(7777, 'a'));
    ASSERT_EQ(QORAPrinterCupsPrintFile(kId1.c_str(), "/tmp/job one.txt", "Quarterly", 1), 0);
    EXPECT_EQ(lpr.runs(), each({"/usr/bin/lpr", "-P", "usbprinter2", "-r", "-T", "Quarterly"}, {"/tmp/job one.txt"}));

    // The stopped queue holds the jobs: "819" is no job ID, but lpq shows "8192 bytes".
    EXPECT_EQ(QORAPrinterCupsJobWaitComplete(kId1.c_str(), "819"), 1);
    ASSERT_EQ(qpt::run({"/usr/bin/cancel", "-a", "usbprinter2"}).status, 0);
    EXPECT_EQ(QORAPrinterCupsJobWaitComplete(kId1.c_str(), "819"), 0);

    // A failed listing is taken again, within a bound.
    Recorder lpq("/usr/bin/lpq");
    lpq.fail_next(100, -9);
    EXPECT_EQ(QORAPrinterCupsJobWaitComplete(kId1.c_str(), "5"), 0);
    EXPECT_EQ(lpq.runs().size(), 5u);
}

TEST_F(CupsTest, CleanSpoolEmptiesTheSpoolEvenWhenLprmFails) {
    for (const char *f : {"a.txt", "b.job.pdf", "noext"})
        qpt::write_file(std::string("/var/services/printer/") + f, "x");
    qpt::mkdirs("/var/services/printer/d.d/inner");
    EXPECT_EQ(QORAPrinterCleanSpool(), 0);
    EXPECT_EQ(log_.count("lprm all failed. [0x"), 1u);  // this lprm knows no "all"
    EXPECT_EQ(qpt::run({"/bin/ls", "-A", "/var/services/printer"}).out, "noext\n");

    Recorder rm("/bin/rm");
    rm.fail_next(1, 1);
    EXPECT_EQ(QORAPrinterCleanSpool(), -1);
    EXPECT_EQ(log_.count("remove /var/services/printer failed. [0x2A00"), 1u);
}

}  // namespace
