// Attach and detach of USB printers end to end: usbtab, printer.conf, the
// driver notices on the simulated nodes, the Samba share, the locks; the
// printer enumerations over usbtab, the USB library and nptab; USB/IP.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "qoraprinter.h"
#include "qp_test.hpp"
#include "usb_rig.hpp"

namespace {

using Strings = std::vector<std::string>;
const char *kUsbtab = "/tmp/usbtab";
const char *kConf = "/usr/qora/etc/printer.conf";
const char *kSmb = "/etc/samba/smb.reserved.conf";
const char *kId = "04a9:1827:A1B2C3";
const char *kStatus = "/tmp/usbip_1-1";

// One key of a printer.conf section, "" when missing.
std::string conf_value(const std::string &section, const char *key) {
    char buf[256] = "";
    QLIBCFileGetSectionValue(kConf, section.c_str(), key, buf, sizeof(buf));
    return buf;
}

class UsbAttach : public ::testing::Test {
protected:
    void SetUp() override {
        usbrig::setup();
        usbrig::add_device({.busid = "1-1"});
        usbrig::add_device({.busid = "1-2", .vendor = "03f0", .product = "002a", .serial = "XZ9"});
        fds_ = qpt::open_fd_count();
    }
    void TearDown() override {  // every path gives descriptors and the USB ID map lock back
        EXPECT_EQ(fds_, qpt::open_fd_count()) << "descriptor leak";
        EXPECT_EQ(0, QLIBCFileLock(LOCK_USBIDMAP | LOCK_MODE_EX_WAIT, 1));
        QLIBCFileUnlock(LOCK_USBIDMAP);
    }
    int fds_ = 0;
};

TEST_F(UsbAttach, AttachWritesSectionNamedFromModelThenDescriptionThenUsbAndNotifiesLast) {
    struct Case { std::string control, product, stringid; };  // no string ID: none stored
    const Case cases[] = {
        {"id=MFG:Acme;DES:Acme Laser;", "Acme Laser", "MFG:Acme;DES:Acme Laser;"},
        {"id=MDL:" + std::string(2000, 'M'), std::string(127, 'M'), "MDL:" + std::string(1019, 'M')},  // both cut
        {"present=0", "Laser USB", ""},  // an absent node still attaches, without the notice
        {"", "Laser 100", "MFG:Acme;CMD:PCL,PJL;MDL:Laser 100;CLS:PRINTER;"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.control);
        usbrig::clear_library_files();
        usbrig::control("reset\nlp0 " + c.control);
        usbrig::clear_events();
        ASSERT_EQ(0, QORAPrinterEnableExt(1, "lp0", "1-1"));
        EXPECT_EQ(std::string("[") + kId + "]\n\tproducer = Acme\n\tproduct name = " + c.product +
                      "\n\tmode = usbip\n" + (c.stringid.empty() ? "" : "\tusblp string id = " + c.stringid + "\n"),
                  qpt::read_file(kConf));
        EXPECT_EQ(c.stringid.empty() ? 0u : 1u, usbrig::count_event("lp0 ENABLE"));
    }
    // Device ID read first, under the lock; the notice after the write.
    EXPECT_EQ((Strings{"lp0 open", "lp0 GET_DEVICE_ID", "lp0 close", "lp0 open", "lp0 ENABLE", "lp0 close"}),
              usbrig::events());
    EXPECT_EQ("lp0=\"1-1\"\n", qpt::read_file(kUsbtab));
    // Detach leaves the section and the share for the next attach.
    const std::string conf = qpt::read_file(kConf), share = qpt::read_file(kSmb);
    EXPECT_NE(std::string::npos, share.find("[printers]\n")) << share;
    ASSERT_EQ(0, QORAPrinterEnableExt(0, "lp0", nullptr));
    EXPECT_EQ("", qpt::read_file(kUsbtab));
    EXPECT_EQ(conf, qpt::read_file(kConf));
    EXPECT_EQ(share, qpt::read_file(kSmb));
    EXPECT_EQ(1u, usbrig::count_event("lp0 DISABLE"));
}

TEST_F(UsbAttach, ReattachKeepsStoredSettingsAndSwitchesLprToUsbip) {
    qpt::write_file(kConf, std::string("[") + kId + "]\n\tmode = LPR\n\tdriver = gutenprint\n"
                           "[03f0:002a:XZ9]\n\tmode = exclusive\n");
    ASSERT_EQ(0, QORAPrinterEnableExt(1, "lp0", "1-1"));
    ASSERT_EQ(0, QORAPrinterEnableExt(1, "lp1", "1-2"));
    EXPECT_EQ("usbip", conf_value(kId, "mode"));  // an LPR printer switches, other modes stay
    EXPECT_EQ("gutenprint", conf_value(kId, "driver"));
    EXPECT_EQ("exclusive", conf_value("03f0:002a:XZ9", "mode"));
    // A serial too long for the ID is cut with it.
    usbrig::add_device({.busid = "2-3", .serial = std::string(200, 's')});
    ASSERT_EQ(0, QORAPrinterEnableExt(1, "lp1", "2-3"));
    EXPECT_EQ("usbip", conf_value(("04a9:1827:" + std::string(200, 's')).substr(0, 127), "mode"));
}

TEST_F(UsbAttach, RefusedCallsTouchNothing) {
    struct Case { int action; const char *name, *bus; int rc; const char *message; };  // no message: refused quietly
    const Case cases[] = {
        {1, "lp2", "1-1", 0, "Exceed the max number of printers supported."},  // only lp0 and lp1 are served
        {1, nullptr, "1-1", -1, nullptr},
        {0, nullptr, "", -1, "delete printer failed: no bus id"},
    };
    qpt::write_file(kUsbtab, "lp1=\"1-2\"\n");
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        qpt::LogCapture log;
        EXPECT_EQ(c.rc, QORAPrinterEnableExt(c.action, c.name, c.bus));
        EXPECT_EQ(c.message ? 1u : 0u, log.count(LOG_ERR, c.message ? c.message : "")) << log.dump();
    }
    EXPECT_EQ("lp1=\"1-2\"\n", qpt::read_file(kUsbtab));
    EXPECT_FALSE(qpt::exists(kConf));
    EXPECT_TRUE(usbrig::events().empty());
}

TEST_F(UsbAttach, DetachByBusIdRemovesPrefixMatchesOfLpLinesOnly) {
    const std::string garbage = "# not an entry\r\n" + std::string(2000, 'g') + "\n";
    qpt::write_file(kUsbtab, "lp0=\"1-1\"\n" + garbage + "lp1=\"1-10\"\r\nlp5=\"2-1\"\nlp7=\"AB-1.3\"\n"
                             "usb=\"1-1\"\nlp9=\"1-1.2\"");
    ASSERT_EQ(0, QORAPrinterEnableExt(0, nullptr, "1-1"));
    ASSERT_EQ(0, QORAPrinterEnableExt(0, nullptr, "ab-1"));
    // Lines that are not entries, and entries not named "lp", stay byte for byte.
    EXPECT_EQ(garbage + "lp5=\"2-1\"\nusb=\"1-1\"\n", qpt::read_file(kUsbtab));
    EXPECT_TRUE(usbrig::events().empty()) << "no notice without a device name";
    qpt::write_file(kUsbtab, "lp0=\"3-1\"\nlp1=\"3-1.4\"\n");  // with a name the bus ID still decides
    ASSERT_EQ(0, QORAPrinterEnableExt(0, "lp1", "3-1"));
    EXPECT_EQ("", qpt::read_file(kUsbtab));
    EXPECT_EQ(1u, usbrig::count_event("lp1 DISABLE"));
    // An empty bus ID is no prefix of everything: removal by name.  A busy node gets no notice.
    qpt::write_file(kUsbtab, "lp0=\"3-1\"\nlp1=\"3-2\"\n");
    usbrig::control("lp0 busy=1");
    ASSERT_EQ(0, QORAPrinterEnableExt(0, "lp0", ""));
    EXPECT_EQ("lp1=\"3-2\"\n", qpt::read_file(kUsbtab));
    EXPECT_EQ(0u, usbrig::count_event("lp0 DISABLE"));
}

// A failed step stops what follows, but an unwritable share still lets the printer attach.
TEST_F(UsbAttach, FailedStepStopsWhatFollows) {
    struct Case { const char *blocked; int action; const char *name, *bus, *message; };
    const Case cases[] = {
        {nullptr, 1, "lp1", "2-1", "wrong printer id format! errno=0x["},
        {kConf, 1, "lp0", "1-1", "setup printer.conf fail! (printerid: 04a9:1827:A1B2C3),[0x"},
        {kSmb, 1, "lp1", "1-2", "update smb.conf failed, printer=lp1"},
        {kUsbtab, 5, "lp0", "1-1", "Set usbtab failed, devname=lp0, device=1-1"},
        {kUsbtab, 0, "lp1", nullptr, "rm usbtab failed, key=lp1"},
    };
    usbrig::add_device({.busid = "2-1", .serial = ""});  // no serial: no printer ID
    for (const auto &c : cases) {
        SCOPED_TRACE(c.message);
        usbrig::clear_library_files();
        usbrig::clear_events();
        if (c.blocked) qpt::mkdirs(c.blocked);  // a directory can be neither written nor edited
        qpt::LogCapture log;
        EXPECT_EQ(-1, QORAPrinterEnableExt(c.action, c.name, c.bus));
        EXPECT_EQ(1u, log.count(LOG_ERR, c.message)) << log.dump();
        if (c.blocked != kUsbtab) { EXPECT_EQ(std::string(c.name) + "=\"" + c.bus + "\"\n", qpt::read_file(kUsbtab)); }
        const bool shared = c.blocked == kSmb;  // only the share step comes after the section and the notice
        EXPECT_EQ(shared, !qpt::read_file(kConf).empty());
        EXPECT_EQ(shared, qpt::exists(kSmb));
        EXPECT_EQ(shared ? 1u : 0u, usbrig::count_event(std::string(c.name) + (c.action ? " ENABLE" : " DISABLE")));
        if (c.blocked) rmdir(c.blocked);
    }
}

// The USB ID map lock is taken before the configuration lock and held while printer.conf is written.
TEST_F(UsbAttach, UsbIdMapLockIsTakenBeforeTheConfigurationLock) {
    int conf = QORAPrinterPrinterConfLock();
    ASSERT_GE(conf, 0);
    // The attach waits for the configuration lock holding the map lock; this thread cannot take it.
    auto attach = std::async(std::launch::async, [] { return QORAPrinterEnableExt(1, "lp0", "1-1"); });
    EXPECT_TRUE(qpt::wait_until([] { return qpt::exists(kUsbtab); }, 3000));
    EXPECT_NE(0, QLIBCFileLock(LOCK_USBIDMAP | LOCK_MODE_EX_WAIT, 1));
    EXPECT_EQ(1, QORAPrinterPrinterConfUnlock(conf));
    EXPECT_EQ(0, attach.get());
    EXPECT_EQ("usbip", conf_value(kId, "mode"));
}

// Costs the full 15 s wait.
TEST_F(UsbAttach, MapLockHeldElsewhereFailsAfterFifteenSecondsWithoutWriting) {
    std::thread([] { ASSERT_EQ(0, QLIBCFileLock(LOCK_USBIDMAP | LOCK_MODE_EX_WAIT, 1)); }).join();
    qpt::LogCapture log;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, QORAPrinterEnableExt(1, "lp0", "1-1"));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(14));
    EXPECT_EQ(ERR_LOCK_FAILED, QLIBCErrGet());
    EXPECT_EQ(1u, log.count(LOG_ERR, "QLIBCFileLock() failed.")) << log.dump();
    EXPECT_EQ(0, QLIBCFileUnlock(LOCK_USBIDMAP));
    EXPECT_FALSE(qpt::exists(kUsbtab) || qpt::exists(kConf));
}

TEST_F(UsbAttach, OnlyPrintersWithAnIdAreListedUsbFirstAndAFailedSourceHandsOutNoList) {
    usbrig::add_device({.busid = "1-3", .vendor = "0781", .product = "5567", .serial = "DISK", .iface_class = "08"});
    usbrig::add_device({.busid = "1-4", .serial = ""});
    qpt::write_file(kUsbtab, "lp3=\"1-1\"\nlp1=\"1-3\"\nlp2=\"1-4\"\nlp0=\"1-2\"\n");
    qpt::write_file("/usr/qora/etc/nptab", "192.168.1.20=\"Office\"\n");

    char **names = static_cast<char **>(malloc(16));  // freed by the call (ASan would see a leak)
    int count = -1;
    ASSERT_EQ(0, QORAPrinterUsbtabEnum(&names, &count));
    EXPECT_EQ((Strings{"lp3", "lp2", "lp0"}), Strings(names, names + count)) << "printers only, in usbtab order";
    PQLIBSZLIST list = QLIBCSzListAlloc(4);
    QLIBCSzListPush(&list, "old");  // the caller's old list is freed and replaced
    ASSERT_EQ(3, QORAPrinterEnumCount(3, &list));
    EXPECT_EQ((Strings{"04a9:1827:A1B2C3", "03f0:002a:XZ9", "192.168.1.20-Office"}),
              Strings(list->pszItem, list->pszItem + list->nItem));
    ASSERT_EQ(0, QORAPrinterEnumCount(0, &list));
    EXPECT_EQ(2, QORAPrinterEnumCount(1, nullptr));
    // The ID enumeration appends to what the caller's list holds.
    ASSERT_EQ(0, QORAPrinterProcUsbtabIdEnum(&list));
    ASSERT_EQ(0, QORAPrinterProcUsbtabIdEnum(&list));
    EXPECT_EQ(4, list->nItem);

    qpt::write_file("/usr/qora/etc/nptab", "192.168.1.20=\"Q\"\n# comment\n");
    PQLIBSZLIST before = list;
    qpt::LogCapture log;
    EXPECT_EQ(-1, QORAPrinterEnumCount(3, &list));
    EXPECT_EQ(before, list);
    EXPECT_EQ(4, list->nItem);
    EXPECT_EQ(1u, log.count(LOG_ERR, "enum network printer id failed[0x")) << log.dump();
    QLIBCSzListFree(list);

    qpt::remove_file(kUsbtab);  // a missing usbtab is an empty one
    ASSERT_EQ(0, QORAPrinterUsbtabEnum(&names, &count));
    EXPECT_EQ(0, count);
    free(names);
}

// USB/IP operations against a recording stand-in of the USB/IP tool and status files written here.
TEST_F(UsbAttach, UsbipToolGetsItsArgumentsOneByOneAndTheStatusFileItsBracketRewritten) {
    usbrig::install_bind_driver();
    EXPECT_EQ(0, QORAPrinterUsbipEject("1-1"));
    EXPECT_EQ(0, QORAPrinterUsbipLockRelease("04a9:1827:A B"));
    qpt::write_file("/tmp/bind_driver.status", "3\n");
    EXPECT_EQ(-1, QORAPrinterUsbipEject("1-1"));
    EXPECT_EQ(-1, QORAPrinterUsbipLockRelease("1-1"));
    EXPECT_EQ(-1, QORAPrinterUsbipLockRelease(nullptr));  // refused, the tool not run
    EXPECT_EQ(ERR_BAD_PARAMETER, QLIBCErrGet());
    EXPECT_EQ("-z|1-1\n-p|04a9:1827:A B|-0|0|-n|USBIP\n-z|1-1\n-p|1-1|-0|0|-n|USBIP\n",
              qpt::read_file("/tmp/bind_driver.log"));

    // The status file gives lock and queue, the bracket giving way to "CUPS Jobs".
    char buf[128];
    EXPECT_EQ(-1, QORAPrinterQueueGet("1-1", buf, 0));

    struct Case { const char *value, *shown; bool message; };
    const Case cases[] = {
        {"usbprinter1 (2)", "usbprinter1 (CUPS Jobs)", false},
        {"Busy (abcdefgh)", "Busy (CUPS Jobsgh)", false},
        {"Waiting (paper", "Waiting (paper", true},
        {"a) b (c", "a) b (CUPS Jobs", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.value);
        qpt::write_file(kStatus, std::string("QUEUE=\"") + c.value + "\"\r\nLOCK=\"Locked by 10.0.0.7\"");
        qpt::LogCapture log;
        ASSERT_EQ(0, QORAPrinterQueueGet("1-1", buf, sizeof(buf)));
        EXPECT_STREQ(c.shown, buf);
        EXPECT_EQ(c.message ? 1u : 0u, log.count(LOG_ERR, "cannot refine printer queue name"));
    }
    EXPECT_EQ(0, QORAPrinterUsbipGetLockStatus("1-1", buf, 7));
    EXPECT_STREQ("Locked", buf);
}

}  // namespace
