// USB/IP operations against a recording stand-in of the USB/IP tool and
// status files written here.
#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <string>

#include "qoraprinter.h"
#include "qp_test.hpp"
#include "usb_rig.hpp"

namespace {

class Usbip : public ::testing::Test {
protected:
    void SetUp() override {
        if (!qpt::in_sandbox()) GTEST_SKIP() << "needs qp-sandbox";
        usbrig::install_bind_driver();
        qpt::remove_file("/tmp/usbip_1-1");
    }
};

TEST_F(Usbip, ToolGetsItsArgumentsOneByOne) {
    EXPECT_EQ(0, QORAPrinterUsbipEject("1-1"));
    EXPECT_EQ(0, QORAPrinterUsbipLockRelease("04a9:1827:A B"));
    EXPECT_EQ("-z|1-1\n-p|04a9:1827:A B|-0|0|-n|USBIP\n", qpt::read_file("/tmp/bind_driver.log"));

    qpt::write_file("/tmp/bind_driver.status", "3\n");
    qpt::LogCapture log;
    EXPECT_EQ(-1, QORAPrinterUsbipEject("1-1"));
    EXPECT_EQ(-1, QORAPrinterUsbipLockRelease("1-1"));
    EXPECT_EQ(1u, log.count(LOG_ERR, "release usb ap lock failed, printerId=1-1"));
    EXPECT_EQ(1u, log.count(LOG_ERR, "release usb ap lock failed, cmd=/usr/bin/bind_driver -p 1-1 -0 0 -n USBIP"))
        << log.dump();

    for (const char *bad : {static_cast<const char *>(nullptr), ""}) {
        QLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(-1, QORAPrinterUsbipEject(bad));
        EXPECT_EQ(ERR_BAD_PARAMETER, QLIBCErrGet());
        EXPECT_EQ(-1, QORAPrinterUsbipLockRelease(bad));
    }
    EXPECT_EQ(0u, log.count("Invaild Argument"));
    std::string runs = qpt::read_file("/tmp/bind_driver.log");
    EXPECT_EQ(4, std::count(runs.begin(), runs.end(), '\n')) << "bad arguments never run the tool";
}

TEST_F(Usbip, LockStatusReadsFreeWithoutAStatusFile) {
    char buf[64];
    EXPECT_EQ(0, QORAPrinterUsbipGetLockStatus("1-1", buf, sizeof(buf)));
    EXPECT_STREQ("Free", buf);
    EXPECT_EQ(0, QORAPrinterUsbipGetLockStatus("1-1", buf, 3));
    EXPECT_STREQ("Fr", buf);
    EXPECT_EQ(0, QORAPrinterUsbipGetLockStatus("", buf, sizeof(buf)));

    qpt::write_file("/tmp/usbip_1-1", "QUEUE=\"Idle\"\r\nLOCK=\"Locked by 10.0.0.7\"");
    EXPECT_EQ(0, QORAPrinterUsbipGetLockStatus("1-1", buf, sizeof(buf)));
    EXPECT_STREQ("Locked by 10.0.0.7", buf);
    EXPECT_EQ(0, QORAPrinterUsbipGetLockStatus("1-1", buf, 7));
    EXPECT_STREQ("Locked", buf);

    EXPECT_EQ(-1, QORAPrinterUsbipGetLockStatus(nullptr, buf, sizeof(buf)));
    EXPECT_EQ(-1, QORAPrinterUsbipGetLockStatus("1-1", nullptr, 8));
    EXPECT_EQ(-1, QORAPrinterUsbipGetLockStatus("1-1", buf, 0));
    EXPECT_EQ(ERR_BAD_PARAMETER, QLIBCErrGet());
}

TEST_F(Usbip, QueueNameBracketGivesWayToCupsJobs) {
    struct Case {
        const char *value, *shown;
        bool message;
    };
    const Case cases[] = {
        {"Idle", "Idle", false},
        {"usbprinter1 (2)", "usbprinter1 (CUPS Jobs)", false},
        {"Printing (1 job)", "Printing (CUPS Jobs)", false},
        {"Busy (abcdefgh)", "Busy (CUPS Jobsgh)", false},
        {"Waiting (paper", "Waiting (paper", true},
        {"a) b (c", "a) b (CUPS Jobs", false},
    };
    char buf[128];
    for (const auto &c : cases) {
        qpt::write_file("/tmp/usbip_1-1", std::string("LOCK=\"Free\"\nQUEUE=\"") + c.value + "\"\n");
        qpt::LogCapture log;
        ASSERT_EQ(0, QORAPrinterQueueGet("1-1", buf, sizeof(buf))) << c.value;
        EXPECT_STREQ(c.shown, buf) << c.value;
        EXPECT_EQ(c.message ? 1u : 0u, log.count(LOG_ERR, "cannot refine printer queue name")) << c.value;
    }
    EXPECT_EQ(0, QORAPrinterQueueGet("1-1", buf, 5));
    EXPECT_STREQ("a) b", buf);

    qpt::LogCapture log;
    qpt::remove_file("/tmp/usbip_1-1");
    EXPECT_EQ(-1, QORAPrinterQueueGet("1-1", buf, sizeof(buf)));
    EXPECT_EQ(1u, log.count(LOG_ERR, "get queue failed, printer=1-1"));
    EXPECT_EQ(-1, QORAPrinterQueueGet("", buf, sizeof(buf)));
    EXPECT_EQ(-1, QORAPrinterQueueGet("1-1", buf, 0));
    EXPECT_EQ(1u, log.count(LOG_ERR, "Invaild Argument (0 != szPrinterId[0])=[0]")) << log.dump();
    EXPECT_EQ(1u, log.count(LOG_ERR, "Invaild Argument (0 < cbBuf)=[0]"));
    EXPECT_EQ(ERR_BAD_PARAMETER, QLIBCErrGet());
}

}  // namespace
