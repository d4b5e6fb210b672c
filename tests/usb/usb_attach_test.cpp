// Attach and detach of USB printers end to end: usbtab, printer.conf, the
// driver notices on the simulated nodes, the Samba share, the locks.
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <future>
#include <string>
#include <thread>

#include "qoraprinter.h"
#include "qp_test.hpp"
#include "usb_rig.hpp"

namespace {

const char *kUsbtab = "/tmp/usbtab";
const char *kConf = "/usr/qora/etc/printer.conf";
const char *kSmb = "/etc/samba/smb.reserved.conf";
const char *kId = "04a9:1827:A1B2C3";

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

class UsbAttach : public ::testing::Test {
protected:
    void SetUp() override {
        usbrig::setup();
        usbrig::add_device({.busid = "1-1"});
        usbrig::add_device({.busid = "1-2", .vendor = "03f0", .product = "002a", .serial = "XZ9",
                            .manufacturer = "Hewlett", .name = "Office"});
        fds_ = qpt::open_fd_count();
    }
    void TearDown() override {
        EXPECT_EQ(fds_, qpt::open_fd_count()) << "descriptor leak";
        // Every path, the failed ones too, gives the USB ID map lock back.
        EXPECT_EQ(0, QLIBCFileLock(LOCK_USBIDMAP | LOCK_MODE_EX_WAIT, 1));
        QLIBCFileUnlock(LOCK_USBIDMAP);
    }
    int fds_ = 0;
};

TEST_F(UsbAttach, AttachWritesTableSectionShareThenNotifies) {
    ASSERT_EQ(0, QORAPrinterEnableExt(1, "lp0", "1-1"));
    EXPECT_EQ("lp0=\"1-1\"\n", qpt::read_file(kUsbtab));
    EXPECT_EQ(std::string("[") + kId + "]\n\tproducer = Acme\n\tproduct name = Laser 100\n\tmode = usbip\n"
                  "\tusblp string id = MFG:Acme;CMD:PCL,PJL;MDL:Laser 100;CLS:PRINTER;\n",
              usbrig::section_text(kConf, kId));
    // Device ID read first, under the lock; the notice after the write.
    std::vector<std::string> expect = {"lp0 open", "lp0 GET_DEVICE_ID", "lp0 close",
                                       "lp0 open", "lp0 ENABLE 0",      "lp0 close"};
    EXPECT_EQ(expect, usbrig::events());
    std::string share = usbrig::section_text(kSmb, "printers");
    EXPECT_TRUE(has(share, "\tpath = /var/services/printer\n")) << share;

    // Detach leaves the section and the share for the next attach.
    usbrig::clear_events();
    std::string conf = qpt::read_file(kConf);
    ASSERT_EQ(0, QORAPrinterEnableExt(0, "lp0", nullptr));
    EXPECT_EQ("", qpt::read_file(kUsbtab));
    EXPECT_EQ(conf, qpt::read_file(kConf));
    EXPECT_EQ(share, usbrig::section_text(kSmb, "printers"));
    EXPECT_EQ(1u, usbrig::count_event("lp0 DISABLE 0"));
}

TEST_F(UsbAttach, ReattachKeepsStoredSettingsAndSwitchesLprToUsbip) {
    qpt::write_file(kConf, std::string("[") + kId + "]\n\tmode = LPR\n\tdriver = gutenprint\n"
                           "[03f0:002a:XZ9]\n\tmode = exclusive\n");
    ASSERT_EQ(0, QORAPrinterEnableExt(1, "lp0", "1-1"));
    ASSERT_EQ(0, QORAPrinterEnableExt(1, "lp1", "1-2"));
    std::string first = usbrig::section_text(kConf, kId), second = usbrig::section_text(kConf, "03f0:002a:XZ9");
    EXPECT_TRUE(has(first, "\tmode = usbip\n") && has(first, "\tdriver = gutenprint\n")) << first;
    EXPECT_TRUE(has(second, "\tmode = exclusive\n") && has(second, "\tproducer = Hewlett\n")) << second;

    // A serial too long for the ID is cut with it.
    usbrig::add_device({.busid = "2-3", .serial = std::string(200, 's')});
    ASSERT_EQ(0, QORAPrinterEnableExt(1, "lp1", "2-3"));
    EXPECT_NE("", usbrig::section_text(kConf, ("04a9:1827:" + std::string(200, 's')).substr(0, 127)));
}

TEST_F(UsbAttach, ProductNameComesFromModelThenDescriptionThenUsb) {
    struct Case { std::string control, product, stringid; };  // no string ID: none stored
    const Case cases[] = {
        {"id=MFG:Acme;DES:Acme Laser;", "Acme Laser", "MFG:Acme;DES:Acme Laser;"},
        {"id=MFG:Acme;CMD:PCL;", "Laser USB", "MFG:Acme;CMD:PCL;"},
        {"id=MDL:" + std::string(2000, 'M'), std::string(127, 'M'), "MDL:" + std::string(1019, 'M')},  // both cut
        {"len=0 id=", "Laser USB", ""},
        {"present=0", "Laser USB", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.control);
        usbrig::clear_library_files();
        usbrig::control("reset\nlp0 " + c.control);
        usbrig::clear_events();
        qpt::LogCapture log;
        ASSERT_EQ(0, QORAPrinterEnableExt(1, "lp0", "1-1"));
        std::string sect = usbrig::section_text(kConf, kId);
        EXPECT_TRUE(has(sect, "\tproduct name = " + c.product + "\n")) << sect;
        if (c.stringid.empty()) {
            EXPECT_FALSE(has(sect, "usblp string id")) << sect;
            EXPECT_EQ(1u, log.count(LOG_ERR, "Bad parameter")) << log.dump();
        } else {
            EXPECT_TRUE(has(sect, "\tusblp string id = " + c.stringid + "\n")) << sect;
        }
        // An absent node still attaches, without the driver's notice.
        EXPECT_EQ(c.control == "present=0" ? 0u : 1u, usbrig::count_event("lp0 ENABLE 0"));
    }
}

TEST_F(UsbAttach, RefusedCallsTouchNothing) {
    struct Case { int action; const char *name, *bus; int rc; const char *message; };  // no message: bad argument
    const Case cases[] = {
        // Only lp0 and lp1 are served; another lp name is ignored, not an error.
        {1, "lp2", "1-1", 0, "Exceed the max number of printers supported."},
        {1, "lp10", "1-1", 0, "Exceed the max number of printers supported."},
        {1, "lp99999999999999999999", "1-1", 0, "Exceed the max number of printers supported."},
        {1, nullptr, "1-1", -1, nullptr},
        {7, "lp0", "", -1, nullptr},
        {0, nullptr, nullptr, -1, "delete printer failed: no bus id"},
        {0, nullptr, "", -1, "delete printer failed: no bus id"},
    };
    qpt::write_file(kUsbtab, "lp1=\"1-2\"\n");
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        qpt::LogCapture log;
        QLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(c.rc, QORAPrinterEnableExt(c.action, c.name, c.bus));
        if (c.message) { EXPECT_EQ(1u, log.count(LOG_ERR, c.message)) << log.dump(); }
        if (!c.message) { EXPECT_EQ(ERR_BAD_PARAMETER, QLIBCErrGet()); }
    }
    EXPECT_EQ("lp1=\"1-2\"\n", qpt::read_file(kUsbtab));
    EXPECT_FALSE(qpt::exists(kConf));
    EXPECT_TRUE(usbrig::events().empty());

    // "../lp0" is no printer limit matter, but must not reach a node outside /dev/usb.
    qpt::LogCapture log;
    QORAPrinterEnableExt(1, "../lp0", "1-1");
    EXPECT_LE(1u, log.count(LOG_ERR, "bad parameter.")) << log.dump();
    EXPECT_EQ(0u, usbrig::count_event("lp0 open"));
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

    // With a device name the bus ID still decides; the name gets the notice.
    qpt::write_file(kUsbtab, "lp0=\"3-1\"\nlp1=\"3-1.4\"\n");
    ASSERT_EQ(0, QORAPrinterEnableExt(0, "lp1", "3-1"));
    EXPECT_EQ("", qpt::read_file(kUsbtab));
    EXPECT_EQ(1u, usbrig::count_event("lp1 DISABLE 0"));

    // An empty bus ID is no prefix of everything: removal by name.  A busy
    // node gets no notice, and its line goes all the same.
    qpt::write_file(kUsbtab, "lp0=\"3-1\"\nlp1=\"3-2\"\n");
    usbrig::control("lp0 busy=1");
    ASSERT_EQ(0, QORAPrinterEnableExt(0, "lp0", ""));
    EXPECT_EQ("lp1=\"3-2\"\n", qpt::read_file(kUsbtab));
    EXPECT_EQ(0u, usbrig::count_event("lp0 DISABLE 0"));

    qpt::remove_file(kUsbtab);
    EXPECT_EQ(0, QORAPrinterEnableExt(0, nullptr, "1-1"));
    EXPECT_EQ(0, QORAPrinterEnableExt(0, "lp0", nullptr));
}

// A failed step stops what follows, but an unwritable share still lets the printer attach.
TEST_F(UsbAttach, FailedStepStopsWhatFollows) {
    struct Case { const char *blocked; int action; const char *name, *bus, *message, *outer; };
    const Case cases[] = {
        {nullptr, 1, "lp1", "2-1", "wrong printer id format! errno=0x[", "Set Printer Conf failed(0x"},
        {nullptr, 1, "lp1", "2-2", "wrong printer id format! errno=0x[", "Set Printer Conf failed(0x"},
        {kConf, 1, "lp0", "1-1", "setup printer.conf fail! (printerid: 04a9:1827:A1B2C3),[0x", "Set Printer Conf failed(0x"},
        {kSmb, 1, "lp1", "1-2", "update smb.conf failed, printer=lp1", nullptr},
        {kUsbtab, 5, "lp0", "1-1", "Set usbtab failed, devname=lp0, device=1-1",
         "/tmp/usbtab update entry lp0=1-1 failed.(action=5)(0x"},
        {kUsbtab, 0, "lp1", nullptr, "rm usbtab failed, key=lp1", "/tmp/usbtab update entry lp1="},
    };
    usbrig::add_device({.busid = "2-1", .serial = ""});
    usbrig::add_device({.busid = "2-2", .vendor = "0000"});
    for (const auto &c : cases) {
        SCOPED_TRACE(c.message);
        usbrig::clear_library_files();
        usbrig::clear_events();
        if (c.blocked) qpt::mkdirs(c.blocked);  // a directory can be neither written nor edited
        qpt::LogCapture log;
        EXPECT_EQ(-1, QORAPrinterEnableExt(c.action, c.name, c.bus));
        EXPECT_EQ(1u, log.count(LOG_ERR, c.message)) << log.dump();
        if (c.outer) { EXPECT_EQ(1u, log.count(LOG_ERR, c.outer)); }
        if (c.blocked != kUsbtab) { EXPECT_EQ(std::string(c.name) + "=\"" + c.bus + "\"\n", qpt::read_file(kUsbtab)); }
        const bool shared = c.blocked == kSmb;  // only the share step comes after the section and the notice
        const std::string notice = std::string(c.name) + (c.action ? " ENABLE 0" : " DISABLE 0");
        EXPECT_EQ(shared, !qpt::read_file(kConf).empty());
        EXPECT_EQ(shared, qpt::exists(kSmb));
        EXPECT_EQ(shared ? 1u : 0u, usbrig::count_event(notice));
        if (c.blocked) rmdir(c.blocked);
    }
}

// The USB ID map lock is taken before the configuration lock and held while printer.conf is written.
TEST_F(UsbAttach, UsbIdMapLockIsTakenBeforeTheConfigurationLock) {
    int conf = QORAPrinterPrinterConfLock();
    ASSERT_GE(conf, 0);
    auto attach = std::async(std::launch::async, [] { return QORAPrinterEnableExt(1, "lp0", "1-1"); });
    // The attach waits for the configuration lock holding the map lock; this thread cannot take it.
    EXPECT_TRUE(qpt::wait_until([] { return qpt::exists(kUsbtab); }, 3000));
    EXPECT_NE(0, QLIBCFileLock(LOCK_USBIDMAP | LOCK_MODE_EX_WAIT, 1));
    EXPECT_EQ(1, QORAPrinterPrinterConfUnlock(conf));
    EXPECT_EQ(0, attach.get());
    EXPECT_NE("", usbrig::section_text(kConf, kId));
}

// Costs the full 15 s wait.
TEST_F(UsbAttach, MapLockHeldElsewhereFailsWithoutWriting) {
    std::thread([] { ASSERT_EQ(0, QLIBCFileLock(LOCK_USBIDMAP | LOCK_MODE_EX_WAIT, 1)); }).join();
    qpt::LogCapture log;
    time_t t0 = time(nullptr);
    EXPECT_EQ(-1, QORAPrinterEnableExt(1, "lp0", "1-1"));
    EXPECT_GE(time(nullptr) - t0, 14);
    EXPECT_EQ(ERR_LOCK_FAILED, QLIBCErrGet());
    EXPECT_STREQ("printer_enable_ext.cpp", QLIBCErrorGetFile());
    EXPECT_EQ(1u, log.count(LOG_ERR, "QLIBCFileLock() failed.")) << log.dump();
    EXPECT_EQ(0, QLIBCFileUnlock(LOCK_USBIDMAP));
    EXPECT_FALSE(qpt::exists(kUsbtab) || qpt::exists(kConf));
    EXPECT_TRUE(usbrig::events().empty());
}

}  // namespace
