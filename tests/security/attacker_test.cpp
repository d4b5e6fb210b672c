// What a local user can try against the library running as root.  For each
// row a child dropped to uid/gid 65534 plants links, FIFOs, huge files or
// look-alike names in /tmp; then root makes one library call (in a child of
// its own, so a call that blocks is killed at the time bound) that must
// return in time with the expected answer; and every watched path outside the
// library's own files must be exactly as before.
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cupsd_fixture.hpp"
#include "qoraprinter.h"
#include "attacker.hpp"
#include "qp_test.hpp"
#include "usb_rig.hpp"

namespace {

using qpatk::drop_to_nobody;
using qpatk::in_child;
using qpatk::kBoundSeconds;
using qpatk::kNobody;

using Step = std::function<bool()>;

const std::string kTarget = "/etc/qp-target";  // a root file a link points at
const std::string kSecret = "/etc/qp-secret";  // a root-only file
const std::string kQueue127(127, 'q');
const char *kConf = "/usr/qora/etc/printer.conf";

qpcups::Cupsd *g_cupsd = nullptr;

// A path as it stands: content, link target, FIFO or absent.
std::string state(const std::string &path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return "<absent>";
    if (S_ISLNK(st.st_mode)) return "<link " + std::filesystem::read_symlink(path).string() + ">";
    if (S_ISFIFO(st.st_mode)) return "<fifo>";
    if (S_ISDIR(st.st_mode)) {
        std::vector<std::string> names;
        for (const auto &e : std::filesystem::directory_iterator(path)) names.push_back(e.path().filename());
        std::sort(names.begin(), names.end());
        std::string all = "<dir>";
        for (const auto &n : names) all += " " + n;
        return all;
    }
    const std::string text = qpt::read_file(path);
    return text.size() <= 80 ? text : text.substr(0, 60) + "... (" + std::to_string(text.size()) + " bytes, hash " +
                                          std::to_string(std::hash<std::string>{}(text)) + ")";
}

bool root_owned_file(const char *path, const std::string &content) {
    struct stat st;
    return lstat(path, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == 0 && (st.st_mode & 022) == 0 &&
           qpt::read_file(path) == content;
}

// The call was refused as a bad argument: -1, 0x0D00 and the argument line.
bool refused(int rc, qpt::LogCapture &log) {
    return rc == -1 && QLIBCErrGet() == ERR_BAD_PARAMETER && log.count("Invaild Argument") >= 1;
}

// Planting steps, run as 65534.
Step link_to(const std::string &at, const std::string &target) {
    return [=] { return symlink(target.c_str(), at.c_str()) == 0; };
}
Step fifo(const std::string &at) {
    return [=] { return mkfifo(at.c_str(), 0666) == 0; };
}
Step own_file(const std::string &at, const std::string &content) {
    return [=] {
        qpt::write_file(at, content, 0666);
        return chmod(at.c_str(), 0666) == 0;
    };
}

struct Row {
    const char *what;
    Step plant;                        // as 65534
    Step call;                         // as root: true when the answer is the expected one
    std::vector<std::string> watched;  // unchanged by the call
    Step after = [] { return true; };  // as root, after the call
};

class Env : public ::testing::Environment {
public:
    void SetUp() override {
        ASSERT_TRUE(qpt::in_sandbox()) << "run inside qp-sandbox";
        g_cupsd = new qpcups::Cupsd;
        ASSERT_TRUE(g_cupsd->start());
        usbrig::setup();
        usbrig::add_device({.busid = "1-1"});
        usbrig::install_bind_driver();
    }
    void TearDown() override { delete g_cupsd; }
};
const auto *const kEnv = ::testing::AddGlobalTestEnvironment(new Env);

TEST(Attacker, MachineUnchangedAndEveryCallReturnsInTime) {
    const std::string ppd = qpcups::kPpdGeneric;
    const std::string usbtab_line = "lp0=\"1-1\"\n";
    const std::string snmp_log = "/etc/qp-snmplog";
    const auto attach = [] { return QORAPrinterEnableExt(1, "lp0", "1-1") == 0; };
    const auto lock_is = [](const char *id, const char *want) {
        char buf[64] = "";
        return QORAPrinterUsbipGetLockStatus(id, buf, sizeof buf) == 0 && strcmp(buf, want) == 0;
    };
    const auto no_queue = [](const char *id) {
        char buf[64];
        return QORAPrinterQueueGet(id, buf, sizeof buf) == -1;
    };
    const auto is_refused = [](const std::function<int()> &call) {
        qpt::LogCapture log;
        return refused(call(), log);
    };
    const auto bind_log_is = [](const std::string &want) {
        return [want] { return qpt::read_file("/tmp/bind_driver.log") == want; };
    };
    // A scheduler file in which a 1023-byte piece of a long Info line ends
    // right before text that looks like a USB queue's header.
    const std::string office = "<Printer office>\nInfo " + std::string(1018, 'A') +
                               "<Printer usbprinter1>\nDeviceURI ipp://10.0.0.2/q\n</Printer>\n";
    const std::string printers_conf = office + "<Printer usbprinter1>\nDeviceURI usb:/dev/usb/x\n</Printer>\n";

    const Row rows[] = {
        // Files in /tmp: links, a user's own file, FIFOs, a huge status file.
        {"usbtab link, attach", link_to("/tmp/usbtab", kTarget), attach, {kTarget},
         [&] { return root_owned_file("/tmp/usbtab", usbtab_line); }},
        {"usbtab link, detach by name", link_to("/tmp/usbtab", kTarget),
         [] { return QORAPrinterEnableExt(0, "lp0", nullptr) == 0; }, {kTarget}},
        {"usbtab link, detach by bus", link_to("/tmp/usbtab", kTarget),
         [] { return QORAPrinterEnableExt(0, nullptr, "1-9") == 0; }, {kTarget}},
        {"usbtab of the user, attach", own_file("/tmp/usbtab", "lp1=\"9-9\"\n"), attach, {},
         [&] { return root_owned_file("/tmp/usbtab", usbtab_line); }},
        {"usbtab FIFO, count", fifo("/tmp/usbtab"), [] { return QORAPrinterEnumCount(1, nullptr) == 0; }, {}},
        {"usbtab FIFO, attach", fifo("/tmp/usbtab"), attach, {}},
        {"status FIFO", fifo("/tmp/usbip_P1"), [&] { return lock_is("P1", "Free") && no_queue("P1"); }, {}},
        {"status link to a root-only file", link_to("/tmp/usbip_P1", kSecret),
         [&] { return lock_is("P1", "Free") && no_queue("P1"); }, {}},
        {"status file of 256 MiB",
         [] {
             const std::string tail = "\nLOCK=\"Locked by 10.0.0.7\"\n";
             const int fd = open("/tmp/usbip_P1", O_WRONLY | O_CREAT | O_EXCL, 0644);
             const bool ok = fd >= 0 && pwrite(fd, tail.data(), tail.size(), 256 << 20) > 0;
             return close(fd) == 0 && ok;
         },
         [&] { return lock_is("P1", "Free") && no_queue("P1"); }, {}},
        // Names that would become paths.
        {"status ID with ..", [] { return mkdir("/tmp/usbip_..", 0777) == 0; },
         [&] {
             return is_refused([] {
                 char buf[64];
                 return QORAPrinterUsbipGetLockStatus("../../etc/qp-secret", buf, sizeof buf);
             });
         },
         {}},
        {"printer ID with .., PPD kept", [] { return true; },
         [&] { return is_refused([&] { return QORAPrinterCupsAdd("../../../etc/qpx", ppd.c_str()); }); },
         {"/etc/qpx.ppd"}},
        {"printer ID too long for the path", [] { return true; },
         [&] { return is_refused([&] { return QORAPrinterCupsAdd(std::string(300, 'A').c_str(), ppd.c_str()); }); },
         {qpcups::kPpdDir}},
        {"network printer ID with ..", [] { return true; },
         [&] {
             PrinterNetConf c{};
             strcpy(c.szPrinterId, "../../../etc/qpn");
             strcpy(c.szCupsPrinterName, "netq");
             strcpy(c.szBackend, "ipp");
             strcpy(c.szIP, "10.0.0.9");
             return is_refused([&] { return QORAPrinterNetCupsAdd(&c, ppd.c_str()); });
         },
         {"/etc/qpn.ppd"}},
        {"PPD name with ..", [] { return true; },
         [] {
             qpt::LogCapture log;
             return QORACupsGetPPD("../../../etc/qp-secret") == nullptr && refused(-1, log);
         },
         {}},
        // Arguments that would become options; wildcards.
        {"address as an option", [] { return true; },
         [&] {
             PrinterNetInfo info{};
             char buf[64], q[64];
             const char *a = "-Lf/etc/qp-snmplog";
             return is_refused([&] { return QORAPrinterNetGetStringId(a, buf, sizeof buf); }) &&
                    is_refused([&] { return QORAPrinterNetGetStringBackend(a, buf, sizeof buf, q, sizeof q); }) &&
                    is_refused([&] { return QORAPrinterNetPingStatus(a, buf, sizeof buf); }) &&
                    QORAPrinterNetInfoGetByIP(a, &info) == -1;
         },
         {snmp_log}},
        {"printer ID as an option", [] { return true; },
         [&] { return is_refused([] { return QORAPrinterUsbipLockRelease("-h"); }); }, {"/tmp/bind_driver.log"}},
        {"wildcard printer ID", [] { return own_file("/tmp/alpha1", "")() && own_file("/tmp/alpha2", "")(); },
         [] { return QORAPrinterUsbipEject("alpha*") == 0; }, {}, bind_log_is("-z|alpha*\n")},
        {"wildcard queue name", [] { return own_file("/tmp/alpha1", "")(); },
         [] { return QORAPrinterCupsRmByName("alpha*") == 0; }, {},
         [] { return qpcups::Cupsd::has_queue("alpha1"); }},
        {"FIFO to print", fifo("/tmp/qp-fifo"),
         [&] { return is_refused([] { return QORAPrinterCupsPrintFile("P1", "/tmp/qp-fifo", nullptr, 0); }); },
         {}},
        // Stored names that do not fit; a scheduler file with a long line.
        {"stored queue name one byte too long", [] { return true; },
         [] { return QORAPrinterNetCupsRm("P2") == -1 && QLIBCErrGet() == ERR_NAME_TOO_LONG; }, {},
         [] { return qpcups::Cupsd::has_queue(kQueue127); }},
        {"long Info line in printers.conf", [] { return true; },
         [] { return QORAPrinterCupsUsbConfRmAll() == 0; }, {},
         [&] { return qpt::read_file(qpcups::kPrintersConf) == office; }},
    };

    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        // Root's own files, as an administrator left them.
        qpt::write_file(kTarget, "root's file\nlp0=\"1-9\"\n");
        qpt::write_file(kSecret, "LOCK=\"secret\"\nQUEUE=\"secret\"\n", 0600);
        qpt::write_file(kSecret + ".ppd", "*PPD secret\n", 0600);
        qpt::write_file(kConf, "[P1]\n\tcups printer name = " + kQueue127 + "\n[P2]\n\tcups printer name = " +
                                   kQueue127 + "x\n");
        usbrig::install_bind_driver();
        if (std::string(row.what).find("printers.conf") != std::string::npos) {
            g_cupsd->stop();
            qpt::write_file(qpcups::kPrintersConf, printers_conf, 0600);
        } else {
            ASSERT_TRUE(g_cupsd->start());
            ASSERT_TRUE(qpcups::Cupsd::has_queue("alpha1") || qpcups::Cupsd::add_queue("alpha1", "ipp://10.0.0.2/a"));
            ASSERT_TRUE(qpcups::Cupsd::has_queue(kQueue127) ||
                        qpcups::Cupsd::add_queue(kQueue127, "ipp://10.0.0.2/q"));
        }
        std::vector<std::string> before;
        for (const auto &p : row.watched) before.push_back(state(p));

        ASSERT_EQ(in_child(row.plant, true), 0) << "planting failed";
        const int verdict = in_child(row.call, false);
        EXPECT_NE(verdict, -1) << "no answer within " << kBoundSeconds << " s";
        EXPECT_EQ(verdict, 0) << "unexpected answer";
        for (size_t i = 0; i < row.watched.size(); ++i) EXPECT_EQ(state(row.watched[i]), before[i]) << row.watched[i];
        EXPECT_TRUE(row.after()) << "after the call";

        for (const char *p : {"/tmp/usbtab", "/tmp/usbip_P1", "/tmp/alpha1", "/tmp/alpha2", "/tmp/qp-fifo",
                              "/etc/qpx.ppd", "/etc/qpn.ppd", "/etc/qp-snmplog"})
            unlink(p);
        rmdir("/tmp/usbip_..");
    }
}

// Where the name policy draws its lines: plain names of up to 127 bytes pass
// whole, dots and blanks inside included; nothing is cut to fit.
TEST(Attacker, NamesPassWholeOrAreRefused) {
    const struct {
        std::string name;
        bool passes;
    } rows[] = {
        {"04a9:1827:A B", true}, {"a..b", true}, {".", true}, {std::string(127, 'i'), true},
        {std::string(128, 'i'), false}, {"..", false}, {"x/y", false}, {"-x", false}, {"a\tb", false},
        {"a\x7f", false}, {"", false},
    };
    for (const auto &row : rows) {
        char buf[16] = "-";
        const int rc = QORAPrinterUsbipGetLockStatus(row.name.c_str(), buf, sizeof buf);
        EXPECT_EQ(rc, row.passes ? 0 : -1) << row.name;
        EXPECT_STREQ(buf, row.passes ? "Free" : "-") << row.name;
        if (!row.passes) { EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER) << row.name; }
    }
}

}  // namespace
