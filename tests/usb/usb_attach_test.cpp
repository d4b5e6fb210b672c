// Attach and detach of USB printers end to end: usbtab, printer.conf, the
// driver notices on the simulated nodes, the Samba share, the locks.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "qoraprinter.h"
#include "qp_test.hpp"
#include "usb_rig.hpp"

namespace {

const char *kUsbtab = "/tmp/usbtab";
const char *kConf = "/usr/qora/etc/printer.conf";
const char *kSmb = "/etc/samba/smb.reserved.conf";
const char *kId = "04a9:1827:A1B2C3";

// A child process that holds something until it is killed.
class Holder {
public:
    explicit Holder(const std::function<bool()> &take) {
        int p[2];
        if (pipe(p) != 0) abort();
        pid_ = fork();
        if (pid_ == 0) {
            close(p[0]);
            char ok = take() ? 1 : 0;
            if (write(p[1], &ok, 1) != 1) _exit(1);
            for (;;) pause();
        }
        close(p[1]);
        char ok = 0;
        held_ = read(p[0], &ok, 1) == 1 && ok == 1;
        close(p[0]);
    }
    ~Holder() { release(); }
    bool held() const { return held_; }
    void release() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
    bool held_ = false;
};

class UsbAttach : public ::testing::Test {
protected:
    void SetUp() override {
        usbrig::setup();
        usbrig::add_device({.busid = "1-1"});
        usbrig::add_device({.busid = "1-2", .vendor = "03f0", .product = "002a", .serial = "XZ9",
                            .manufacturer = "Hewlett", .name = "Office"});
        fds_ = qpt::open_fd_count();
    }
    void TearDown() override { EXPECT_EQ(fds_, qpt::open_fd_count()) << "descriptor leak"; }
    int fds_ = 0;
};

TEST_F(UsbAttach, AttachWritesTableSectionShareThenNotifies) {
    ASSERT_EQ(0, QORAPrinterEnableExt(1, "lp0", "1-1"));

    EXPECT_EQ("lp0=\"1-1\"\n", qpt::read_file(kUsbtab));
    EXPECT_EQ(std::string("[") + kId + "]\n"
                  "\tproducer = Acme\n"
                  "\tproduct name = Laser 100\n"
                  "\tmode = usbip\n"
                  "\tusblp string id = MFG:Acme;CMD:PCL,PJL;MDL:Laser 100;CLS:PRINTER;\n",
              usbrig::section_text(kConf, kId));
    // Device ID read first, under the lock; the notice after the write.
    std::vector<std::string> expect = {"lp0 open", "lp0 GET_DEVICE_ID", "lp0 close",
                                       "lp0 open", "lp0 ENABLE 0",      "lp0 close"};
    EXPECT_EQ(expect, usbrig::events());

    std::string share = usbrig::section_text(kSmb, "printers");
    EXPECT_NE(std::string::npos, share.find("\tpath = /var/services/printer\n")) << share;
    EXPECT_EQ(0, qpt::run({"/usr/bin/testparm", "-s", kSmb}).status);

    PQLIBSZLIST list = nullptr;
    ASSERT_EQ(1, QORAPrinterEnumCount(1, &list));
    EXPECT_STREQ(kId, QLIBCSzListGet(list, 0));
    QLIBCSzListFree(list);

    // Detach leaves the section and the share for the next attach.
    usbrig::clear_events();
    std::string conf = qpt::read_file(kConf);
    ASSERT_EQ(0, QORAPrinterEnableExt(0, "lp0", nullptr));
    EXPECT_EQ("", qpt::read_file(kUsbtab));
    EXPECT_EQ(conf, qpt::read_file(kConf));
    EXPECT_EQ(share, usbrig::section_text(kSmb, "printers"));
    EXPECT_EQ(1u, usbrig::count_event("lp0 DISABLE 0"));
    EXPECT_EQ(0, QORAPrinterEnumCount(1, nullptr));
}

TEST_F(UsbAttach, ReattachKeepsStoredSettingsAndSwitchesLprToUsbip) {
    qpt::write_file(kConf, std::string("[") + kId + "]\n\tmode = LPR\n\tdriver = gutenprint\n"
                           "[03f0:002a:XZ9]\n\tmode = exclusive\n");
    ASSERT_EQ(0, QORAPrinterEnableExt(1, "lp0", "1-1"));
    ASSERT_EQ(0, QORAPrinterEnableExt(1, "lp1", "1-2"));
    std::string first = usbrig::section_text(kConf, kId);
    EXPECT_NE(std::string::npos, first.find("\tmode = usbip\n")) << first;
    EXPECT_NE(std::string::npos, first.find("\tdriver = gutenprint\n")) << first;
    std::string second = usbrig::section_text(kConf, "03f0:002a:XZ9");
    EXPECT_NE(std::string::npos, second.find("\tmode = exclusive\n")) << second;
    EXPECT_NE(std::string::npos, second.find("\tproducer = Hewlett\n")) << second;
}

TEST_F(UsbAttach, ProductNameComesFromModelThenDescriptionThenUsb) {
    struct Case {
        std::string control, product, stringid;
    };
    const std::string longModel(300, 'M');
    const Case cases[] = {
        {"id=MFG:Acme;DES:Acme Laser;", "Acme Laser", "MFG:Acme;DES:Acme Laser;"},
        {"id=MFG:Acme;CMD:PCL;", "Laser USB", "MFG:Acme;CMD:PCL;"},
        {"id=MDL:" + longModel, std::string(127, 'M'), ("MDL:" + longModel).substr(0, 1023)},
        {"id=CMD:" + std::string(2000, 'c') + ";", "Laser USB", ("CMD:" + std::string(2000, 'c')).substr(0, 1023)},
        {"len=0 id=", "Laser USB", ""},
        {"present=0", "Laser USB", ""},
    };
    for (const auto &c : cases) {
        usbrig::clear_library_files();
        usbrig::control("reset");
        usbrig::control("lp0 " + c.control);
        qpt::LogCapture log;
        ASSERT_EQ(0, QORAPrinterEnableExt(1, "lp0", "1-1")) << c.control;
        std::string sect = usbrig::section_text(kConf, kId);
        EXPECT_NE(std::string::npos, sect.find("\tproduct name = " + c.product + "\n")) << c.control << "\n" << sect;
        if (c.stringid.empty()) {
            EXPECT_EQ(std::string::npos, sect.find("usblp string id")) << sect;
            EXPECT_EQ(1u, log.count(LOG_ERR, "Bad parameter")) << log.dump();
        } else {
            EXPECT_NE(std::string::npos, sect.find("\tusblp string id = " + c.stringid + "\n")) << c.control;
        }
        // An absent node still attaches, without the driver's notice.
        EXPECT_EQ(c.control == "present=0" ? 0u : 1u, usbrig::count_event("lp0 ENABLE 0")) << c.control;
        usbrig::clear_events();
    }
}

TEST_F(UsbAttach, PrinterIdNeedsVendorProductAndSerial) {
    usbrig::add_device({.busid = "2-1", .serial = ""});
    usbrig::add_device({.busid = "2-2", .vendor = "0000"});
    usbrig::add_device({.busid = "2-3", .serial = std::string(200, 's')});
    for (const char *bus : {"2-1", "2-2"}) {
        usbrig::clear_library_files();
        usbrig::clear_events();
        qpt::LogCapture log;
        EXPECT_EQ(-1, QORAPrinterEnableExt(1, "lp1", bus)) << bus;
        EXPECT_EQ(1u, log.count(LOG_ERR, "wrong printer id format! errno=0x[")) << log.dump();
        EXPECT_EQ(1u, log.count(LOG_ERR, "Set Printer Conf failed(0x")) << log.dump();
        // The table line stays; nothing after the failed step runs.
        EXPECT_EQ(std::string("lp1=\"") + bus + "\"\n", qpt::read_file(kUsbtab));
        EXPECT_FALSE(qpt::exists(kConf));
        EXPECT_FALSE(qpt::exists(kSmb));
        EXPECT_EQ(0u, usbrig::count_event("lp1 ENABLE 0"));
    }
    usbrig::clear_library_files();
    ASSERT_EQ(0, QORAPrinterEnableExt(1, "lp1", "2-3"));
    std::string cut = ("04a9:1827:" + std::string(200, 's')).substr(0, 127);
    EXPECT_NE("", usbrig::section_text(kConf, cut)) << qpt::read_file(kConf);
}

TEST_F(UsbAttach, OnlyTwoPrintersAndNoHarmFromOddNames) {
    qpt::write_file(kUsbtab, "lp1=\"1-2\"\n");
    for (const char *name : {"lp2", "lp10", "lp99999999999999999999"}) {
        qpt::LogCapture log;
        EXPECT_EQ(0, QORAPrinterEnableExt(1, name, "1-1")) << name;
        EXPECT_EQ(1u, log.count(LOG_ERR, "Exceed the max number of printers supported.")) << name;
    }
    EXPECT_EQ("lp1=\"1-2\"\n", qpt::read_file(kUsbtab));
    EXPECT_FALSE(qpt::exists(kConf));

    // "../lp0" is no printer limit matter, but it must not reach a node
    // outside /dev/usb.
    qpt::LogCapture log;
    QORAPrinterEnableExt(1, "../lp0", "1-1");
    EXPECT_LE(1u, log.count(LOG_ERR, "bad parameter.")) << log.dump();
    EXPECT_EQ(0u, qpt::read_file(kUsbtab).find("lp1=\"1-2\"\n"));
    EXPECT_EQ(0u, usbrig::count_event("lp0 open"));
}

TEST_F(UsbAttach, BadArgumentsTouchNothing) {
    EXPECT_EQ(-1, QORAPrinterEnableExt(1, nullptr, "1-1"));
    EXPECT_EQ(ERR_BAD_PARAMETER, QLIBCErrGet());
    EXPECT_EQ(-1, QORAPrinterEnableExt(1, "lp0", nullptr));
    EXPECT_EQ(-1, QORAPrinterEnableExt(7, "lp0", ""));
    EXPECT_EQ(ERR_BAD_PARAMETER, QLIBCErrGet());
    EXPECT_STREQ("printer_enable_ext.cpp", QLIBCErrorGetFile());
    qpt::LogCapture log;
    EXPECT_EQ(-1, QORAPrinterEnableExt(0, nullptr, nullptr));
    EXPECT_EQ(-1, QORAPrinterEnableExt(0, nullptr, ""));
    EXPECT_EQ(2u, log.count(LOG_ERR, "delete printer failed: no bus id"));
    EXPECT_FALSE(qpt::exists(kUsbtab));
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

    // With a device name the bus ID still decides; the name gets the notice.
    qpt::write_file(kUsbtab, "lp0=\"3-1\"\nlp1=\"3-1.4\"\n");
    ASSERT_EQ(0, QORAPrinterEnableExt(0, "lp1", "3-1"));
    EXPECT_EQ("", qpt::read_file(kUsbtab));
    EXPECT_EQ(1u, usbrig::count_event("lp1 DISABLE 0"));

    // An empty bus ID is no prefix of everything: removal by name.
    qpt::write_file(kUsbtab, "lp0=\"3-1\"\nlp1=\"3-2\"\n");
    ASSERT_EQ(0, QORAPrinterEnableExt(0, "lp0", ""));
    EXPECT_EQ("lp1=\"3-2\"\n", qpt::read_file(kUsbtab));

    qpt::remove_file(kUsbtab);
    EXPECT_EQ(0, QORAPrinterEnableExt(0, nullptr, "1-1"));
    EXPECT_EQ(0, QORAPrinterEnableExt(0, "lp0", nullptr));
}

TEST_F(UsbAttach, BusyNodeGetsNoNotice) {
    qpt::write_file(kUsbtab, "lp0=\"1-1\"\n");
    qpt::LogCapture log;
    usbrig::control("lp0 busy=1");
    ASSERT_EQ(0, QORAPrinterEnableExt(0, "lp0", nullptr));
    EXPECT_EQ(1u, log.count(LOG_ERR, "lp0 device open fail reach max, abort.")) << log.dump();
    EXPECT_EQ(0u, usbrig::count_event("lp0 DISABLE 0"));
    EXPECT_EQ("", qpt::read_file(kUsbtab));
}

TEST_F(UsbAttach, FailedWritesStopWhereTheyHappen) {
    // printer.conf cannot be written: the table line stays, no notice, no share.
    qpt::mkdirs(kConf);
    qpt::LogCapture log;
    EXPECT_EQ(-1, QORAPrinterEnableExt(1, "lp0", "1-1"));
    EXPECT_EQ(1u, log.count(LOG_ERR, "setup printer.conf fail! (printerid: 04a9:1827:A1B2C3),[0x")) << log.dump();
    EXPECT_EQ(1u, log.count(LOG_ERR, "Set Printer Conf failed(0x"));
    EXPECT_EQ("lp0=\"1-1\"\n", qpt::read_file(kUsbtab));
    EXPECT_EQ(0u, usbrig::count_event("lp0 ENABLE 0"));
    EXPECT_FALSE(qpt::exists(kSmb));
    rmdir(kConf);

    // The share file cannot be written: the printer is attached and
    // notified all the same, and the call reports the failure.
    qpt::mkdirs(kSmb);
    log.reset();
    EXPECT_EQ(-1, QORAPrinterEnableExt(1, "lp1", "1-2"));
    EXPECT_EQ(1u, log.count(LOG_ERR, "update smb.conf failed, printer=lp1")) << log.dump();
    EXPECT_EQ(1u, usbrig::count_event("lp1 ENABLE 0"));
    EXPECT_NE("", usbrig::section_text(kConf, "03f0:002a:XZ9"));
    rmdir(kSmb);

    // The share section exists but is empty: left as it is.
    qpt::write_file(kSmb, "[global]\n\tworkgroup = W\n[printers]\n");
    EXPECT_EQ(0, QORAPrinterEnableExt(1, "lp1", "1-2"));
    EXPECT_EQ("[global]\n\tworkgroup = W\n[printers]\n", qpt::read_file(kSmb));
}

TEST_F(UsbAttach, TableThatCannotBeWrittenFailsAndReleasesTheMapLock) {
    // A directory in the table's place can be neither written nor edited.
    qpt::mkdirs(kUsbtab);
    qpt::LogCapture log;
    EXPECT_EQ(-1, QORAPrinterEnableExt(5, "lp0", "1-1"));
    EXPECT_EQ(1u, log.count(LOG_ERR, "Set usbtab failed, devname=lp0, device=1-1")) << log.dump();
    EXPECT_EQ(1u, log.count(LOG_ERR, "/tmp/usbtab update entry lp0=1-1 failed.(action=5)(0x")) << log.dump();
    EXPECT_FALSE(qpt::exists(kConf));
    EXPECT_FALSE(qpt::exists(kSmb));

    log.reset();
    EXPECT_EQ(-1, QORAPrinterEnableExt(0, "lp1", nullptr));
    EXPECT_EQ(1u, log.count(LOG_ERR, "rm usbtab failed, key=lp1")) << log.dump();
    EXPECT_EQ(1u, log.count(LOG_ERR, "/tmp/usbtab update entry lp1=")) << log.dump();
    EXPECT_TRUE(usbrig::events().empty()) << "no notice after a failed removal";
    EXPECT_EQ(0u, log.count("unlock LOCK_USBIDMAP failed"));
    rmdir(kUsbtab);

    // Every failure above gave the map lock back.
    ASSERT_EQ(0, QLIBCFileLock(LOCK_USBIDMAP | LOCK_MODE_EX_WAIT, 1));
    EXPECT_EQ(0, QLIBCFileUnlock(LOCK_USBIDMAP));
}

// The USB ID map lock is taken before the configuration lock and held
// while printer.conf is written.
TEST_F(UsbAttach, UsbIdMapLockIsTakenBeforeTheConfigurationLock) {
    Holder conf([] { return QORAPrinterPrinterConfLock() >= 0; });
    ASSERT_TRUE(conf.held());

    pid_t attach = fork();
    if (attach == 0) _exit(QORAPrinterEnableExt(1, "lp0", "1-1") == 0 ? 0 : 1);
    // While the attach waits for the configuration lock it holds the map lock.
    ASSERT_TRUE(qpt::wait_until([] { return qpt::exists(kUsbtab); }, 3000));
    EXPECT_NE(0, QLIBCFileLock(LOCK_USBIDMAP | LOCK_MODE_EX_WAIT, 1));
    conf.release();
    int status = 0;
    ASSERT_EQ(attach, waitpid(attach, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    ASSERT_EQ(0, QLIBCFileLock(LOCK_USBIDMAP | LOCK_MODE_EX_WAIT, 1));
    EXPECT_EQ(0, QLIBCFileUnlock(LOCK_USBIDMAP));
    EXPECT_NE("", usbrig::section_text(kConf, kId));
}

// Costs the full 15 s wait.
TEST_F(UsbAttach, MapLockHeldElsewhereFailsWithoutWriting) {
    Holder other([] { return QLIBCFileLock(LOCK_USBIDMAP | LOCK_MODE_EX_WAIT, 1) == 0; });
    ASSERT_TRUE(other.held());
    qpt::LogCapture log;
    time_t t0 = time(nullptr);
    EXPECT_EQ(-1, QORAPrinterEnableExt(1, "lp0", "1-1"));
    EXPECT_GE(time(nullptr) - t0, 14);
    EXPECT_EQ(ERR_LOCK_FAILED, QLIBCErrGet());
    EXPECT_STREQ("printer_enable_ext.cpp", QLIBCErrorGetFile());
    EXPECT_EQ(1u, log.count(LOG_ERR, "QLIBCFileLock() failed.")) << log.dump();
    EXPECT_FALSE(qpt::exists(kUsbtab));
    EXPECT_FALSE(qpt::exists(kConf));
    EXPECT_TRUE(usbrig::events().empty());
}

}  // namespace
