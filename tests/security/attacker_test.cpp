// What a local user can try against the library running as root.  For each
// row a child dropped to uid/gid 65534 plants links, FIFOs, huge files or
// look-alike names in /tmp; then root makes one library call (in a child of
// its own, so a call that blocks is killed at the time bound) that must
// return in time with the expected answer; and every watched path outside the
// library's own files must be exactly as before.
#include <stdio.h>
#include <string.h>

#include <vector>

#include "attacker.hpp"
#include "cupsd_fixture.hpp"
#include "qoraprinter.h"
#include "usb_rig.hpp"

namespace {

using namespace qpatk;

const std::string kTarget = "/etc/qp-target";  // a root file a link points at
const std::string kSecret = "/etc/qp-secret";  // a root-only file
const std::string kQueue127(127, 'q');
const char *kConf = "/usr/qora/etc/printer.conf";
const char *kSnmpLog = "/etc/qp-snmplog";  // where an address taken for an option would log

// A path as it stands: type, mode, owner, size, time and link target (of
// each entry, for a directory), and what a file holds.
std::string state(const std::string &path) {
    return qpt::run({"/bin/ls", "-lA", "--full-time", path}).out +
           std::to_string(std::hash<std::string>{}(qpt::read_file(path)));
}

// Root's own usbtab holding just the line of the attached device.
bool usbtab_is_roots() {
    struct stat st;
    return lstat("/tmp/usbtab", &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == 0 && (st.st_mode & 022) == 0 &&
           qpt::read_file("/tmp/usbtab") == "lp0=\"1-1\"\n";
}

// The call was refused as a bad argument: -1, 0x0D00 and the argument line.
bool refused(const char *what, const std::function<int()> &call) {
    qpt::LogCapture log;
    const bool ok = call() == -1 && QLIBCErrGet() == ERR_BAD_PARAMETER && log.count("Invaild Argument") >= 1;
    if (!ok) fprintf(stderr, "not refused: %s\n", what);
    return ok;
}

// Names that would become paths, addresses and IDs that would become options.
bool names_refused() {
    const char *ppd = qpcups::kPpdGeneric;
    const char *option = "-Lf/etc/qp-snmplog";
    char buf[64], queue[64];
    PrinterNetConf net{};
    strcpy(net.szPrinterId, "../../../etc/qpn");
    strcpy(net.szCupsPrinterName, "netq");
    strcpy(net.szBackend, "ipp");
    strcpy(net.szIP, "10.0.0.9");
    PrinterNetInfo info{};
    return refused("printer ID with ..", [&] { return QORAPrinterCupsAdd("../../../etc/qpx", ppd); }) &&
           refused("printer ID too long for a path",
                   [&] { return QORAPrinterCupsAdd(std::string(300, 'A').c_str(), ppd); }) &&
           refused("network printer ID with ..", [&] { return QORAPrinterNetCupsAdd(&net, ppd); }) &&
           refused("PPD name with ..", [] { return QORACupsGetPPD("../../../etc/qp-secret") ? 0 : -1; }) &&
           refused("address for the ID", [&] { return QORAPrinterNetGetStringId(option, buf, sizeof buf); }) &&
           refused("address for the backend",
                   [&] { return QORAPrinterNetGetStringBackend(option, buf, sizeof buf, queue, sizeof queue); }) &&
           refused("address to ping", [&] { return QORAPrinterNetPingStatus(option, buf, sizeof buf); }) &&
           QORAPrinterNetInfoGetByIP(option, &info) == -1 &&
           refused("printer ID as an option", [] { return QORAPrinterUsbipLockRelease("-h"); }) &&
           refused("FIFO to print", [] { return QORAPrinterCupsPrintFile("P1", "/tmp/qp-fifo", nullptr, 0); });
}

struct Row {
    const char *what;
    Step plant;                        // as 65534
    Step call;                         // as root: true when the answer is the expected one
    std::vector<std::string> watched;  // unchanged by the call
    Step after = [] { return true; };  // as root, after the call
};

// A scheduler (stopped with the environment) and an attachable device.
struct Env : ::testing::Environment {
    qpcups::Cupsd cupsd;
    void SetUp() override {
        ASSERT_TRUE(cupsd.start());
        usbrig::setup();
        usbrig::add_device({.busid = "1-1"});
    }
};
const auto *const kEnv = ::testing::AddGlobalTestEnvironment(new Env);

TEST(Attacker, MachineUnchangedAndEveryCallReturnsInTime) {
    const Step nothing = [] { return true; };
    const Step attach = [] { return QORAPrinterEnableExt(1, "lp0", "1-1") == 0; };
    // The status of P1 reads as free and without a queue, whatever was planted.
    const Step status_free = [] {
        char lock[64] = "", queue[64];
        return QORAPrinterUsbipGetLockStatus("P1", lock, sizeof lock) == 0 && strcmp(lock, "Free") == 0 &&
               QORAPrinterQueueGet("P1", queue, sizeof queue) == -1;
    };
    const std::string lock_line = "LOCK=\"Locked by 10.0.0.7\"\nQUEUE=\"q\"\n";
    // Root's own status file of 256 MiB is not read, whatever it holds first.
    const Step huge_status_refused = [&] {
        char lock[64];
        qpt::write_file("/tmp/usbip_P1", lock_line);
        return truncate("/tmp/usbip_P1", 256 << 20) == 0 &&
               QORAPrinterUsbipGetLockStatus("P1", lock, sizeof lock) == -1 && QLIBCErrGet() == ERR_READ_FAILED;
    };

    const Row rows[] = {
        // Files in /tmp: links, a user's own file, FIFOs, a huge status file.
        {"usbtab link, attach", link_to("/tmp/usbtab", kTarget), attach, {kTarget}, usbtab_is_roots},
        {"usbtab of the user, attach", own_file("/tmp/usbtab", "lp1=\"9-9\"\n"), attach, {}, usbtab_is_roots},
        {"status FIFO", fifo("/tmp/usbip_P1"), status_free, {}},
        {"status link to a root-only file", link_to("/tmp/usbip_P1", kSecret), status_free, {}},
        {"status file of the user", own_file("/tmp/usbip_P1", lock_line), status_free, {}},
        {"status file of 256 MiB", nothing, huge_status_refused, {}},
        // Names, addresses and files that would become paths or options; wildcards.
        {"names as paths, addresses as options", fifo("/tmp/qp-fifo"), names_refused,
         {"/etc/qpx.ppd", qpcups::kPpdDir, "/etc/qpn.ppd", kSnmpLog, "/tmp/bind_driver.log"}},
        {"PPD file named like an option", own_file("/tmp/-v", qpt::read_file(qpcups::kPpdGeneric)),
         [] { return QORAPrinterCupsAdd("P9", "-v") == 0; }, {},
         [] { return qpt::read_file("/etc/cups/ppd/P9.ppd") == qpt::read_file(qpcups::kPpdGeneric); }},
        {"wildcard printer ID", [] { return own_file("/tmp/alpha1", "")() && own_file("/tmp/alpha2", "")(); },
         [] { return QORAPrinterUsbipEject("alpha*") == 0; }, {},
         [] { return qpt::read_file("/tmp/bind_driver.log") == "-z|alpha*\n"; }},
        {"wildcard queue name", own_file("/tmp/alpha1", ""), [] { return QORAPrinterCupsRmByName("alpha*") == 0; },
         {}, [] { return qpcups::Cupsd::has_queue("alpha1"); }},
        // A stored name that does not fit.
        {"stored queue name one byte too long", nothing,
         [] { return QORAPrinterNetCupsRm("P2") == -1 && QLIBCErrGet() == ERR_NAME_TOO_LONG; }, {},
         [] { return qpcups::Cupsd::has_queue(kQueue127); }},
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
        for (const std::string &queue : {std::string("alpha1"), kQueue127})
            ASSERT_TRUE(qpcups::Cupsd::has_queue(queue) || qpcups::Cupsd::add_queue(queue, "ipp://10.0.0.2/a"));
        std::vector<std::string> before;
        for (const auto &p : row.watched) before.push_back(state(p));

        ASSERT_EQ(in_child(row.plant, true), 0) << "planting failed";
        expect_answer(row.call);
        for (size_t i = 0; i < row.watched.size(); ++i) EXPECT_EQ(state(row.watched[i]), before[i]) << row.watched[i];
        EXPECT_TRUE(row.after()) << "after the call";

        for (const char *p : {"/tmp/usbtab", "/tmp/usbip_P1", "/tmp/alpha1", "/tmp/alpha2", "/tmp/qp-fifo", "/tmp/-v",
                              "/etc/qpx.ppd", "/etc/qpn.ppd", kSnmpLog})
            unlink(p);
    }
}

// Where the name policy draws its lines: plain names of up to 127 bytes pass
// whole, dots and blanks inside included; nothing is cut to fit.
TEST(Attacker, NamesPassWholeOrAreRefused) {
    const struct { std::string name; bool passes; } rows[] = {
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
