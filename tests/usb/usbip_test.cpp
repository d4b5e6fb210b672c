// USB/IP operations against a recording stand-in of the USB/IP tool and status files written here.
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include "qoraprinter.h"
#include "qp_test.hpp"
#include "usb_rig.hpp"

namespace {

const char *kStatus = "/tmp/usbip_1-1";

class Usbip : public ::testing::Test {
protected:
    void SetUp() override {
        if (!qpt::in_sandbox()) GTEST_SKIP() << "needs qp-sandbox";
        usbrig::install_bind_driver();
        qpt::remove_file(kStatus);
    }
};

TEST_F(Usbip, ToolGetsItsArgumentsOneByOne) {
    EXPECT_EQ(0, QORAPrinterUsbipEject("1-1"));
    EXPECT_EQ(0, QORAPrinterUsbipLockRelease("04a9:1827:A B"));
    qpt::write_file("/tmp/bind_driver.status", "3\n");
    qpt::LogCapture log;
    EXPECT_EQ(-1, QORAPrinterUsbipEject("1-1"));
    EXPECT_EQ(-1, QORAPrinterUsbipLockRelease("1-1"));
    EXPECT_EQ(1u, log.count(LOG_ERR, "release usb ap lock failed, cmd=/usr/bin/bind_driver -p 1-1 -0 0 -n USBIP"))
        << log.dump();
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(-1, QORAPrinterUsbipLockRelease(nullptr));  // quietly refused, the tool not run
    EXPECT_EQ(ERR_BAD_PARAMETER, QLIBCErrGet());
    EXPECT_EQ(0u, log.count("Invaild Argument"));
    EXPECT_EQ("-z|1-1\n-p|04a9:1827:A B|-0|0|-n|USBIP\n-z|1-1\n-p|1-1|-0|0|-n|USBIP\n",
              qpt::read_file("/tmp/bind_driver.log"));
}

TEST_F(Usbip, StatusFileGivesLockAndQueueWithTheBracketGivingWayToCupsJobs) {
    char buf[128];
    EXPECT_EQ(0, QORAPrinterUsbipGetLockStatus("1-1", buf, sizeof(buf)));
    EXPECT_STREQ("Free", buf) << "no status file";
    qpt::LogCapture log;
    EXPECT_EQ(-1, QORAPrinterQueueGet("1-1", buf, sizeof(buf)));
    EXPECT_EQ(1u, log.count(LOG_ERR, "get queue failed, printer=1-1"));
    EXPECT_EQ(-1, QORAPrinterQueueGet("1-1", buf, 0));
    EXPECT_EQ(1u, log.count(LOG_ERR, "Invaild Argument (0 < cbBuf)=[0]")) << log.dump();

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

    // Even root's own status file is read only up to 64 KiB: past that, an error.
    ASSERT_EQ(0, truncate(kStatus, 64 << 10));
    EXPECT_EQ(0, QORAPrinterUsbipGetLockStatus("1-1", buf, sizeof(buf)));
    ASSERT_EQ(0, truncate(kStatus, (64 << 10) + 1));
    EXPECT_EQ(-1, QORAPrinterUsbipGetLockStatus("1-1", buf, sizeof(buf)));
    EXPECT_EQ(ERR_READ_FAILED, QLIBCErrGet());
}

}  // namespace
