// Device access against the simulated printer class driver: opening with
// busy retries, the device ID reply and its untrusted length, soft reset.
#include <errno.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "qoraprinter.h"
#include "qp_test.hpp"
#include "usb_rig.hpp"

namespace {

using Events = std::vector<std::string>;

class UsbDevice : public ::testing::Test {
protected:
    void SetUp() override {
        usbrig::setup();
        fds_ = qpt::open_fd_count();
    }
    void TearDown() override { EXPECT_EQ(fds_, qpt::open_fd_count()) << "descriptor leak"; }  // every node closed
    int fds_ = 0;
};

TEST_F(UsbDevice, OpensNodesOnlyUnderDevUsbAndRetriesOnlyBusyOnes) {
    for (const char *name : {"lp0", "/dev/usb/lp1"}) EXPECT_EQ(0, close(QORAPrinterDevOpen(name, 0))) << name;
    EXPECT_EQ((Events{"lp0 open", "lp0 close", "lp1 open", "lp1 close"}), usbrig::events());
    usbrig::clear_events();
    qpt::LogCapture log;
    EXPECT_EQ(-1, QORAPrinterDevOpen(nullptr, 8));
    // Names outside /dev/usb are refused; absent nodes and names beyond the two fail at once.
    usbrig::control("lp1 present=0");
    for (const std::string &name : {std::string("../lp0"), std::string("/dev/usb/../usb/lp0"), std::string("lp1"),
                                    std::string("lp2"), std::string(300, 'l')}) {
        errno = 0;
        EXPECT_EQ(-1, QORAPrinterDevOpen(name.c_str(), 8)) << name;
        EXPECT_EQ(name.find("..") == std::string::npos ? ENOENT : EINVAL, errno) << name;
    }
    EXPECT_EQ(3u, log.count(LOG_ERR, "bad parameter."));
    EXPECT_TRUE(usbrig::events().empty());
    // A busy node is retried once a second, iRetry times after the first open.
    usbrig::control("lp0 busy=2");
    EXPECT_EQ(-1, QORAPrinterDevOpen("lp0", 1));
    EXPECT_EQ(EBUSY, errno);
    EXPECT_EQ(1u, log.count(LOG_ERR, "lp0 device open fail reach max, abort."));
    EXPECT_EQ(0, close(QORAPrinterDevOpen("lp0", 0)));
    EXPECT_EQ((Events{"lp0 open EBUSY", "lp0 open EBUSY", "lp0 open", "lp0 close"}), usbrig::events());
}

TEST_F(UsbDevice, DeviceIdLengthIsReportedNeverTrusted) {
    struct Case { std::string control; int cbBuf, result; std::string text; };
    const std::string id = "MFG:Acme;CMD:PCL;MDL:Laser 100;", big(5000, 'x');  // big: more than a reply carries
    const Case cases[] = {
        {"len=-1 id=" + id, 10, static_cast<int>(id.size()) + 2, id.substr(0, 9)},
        {"len=0 id=" + id, 64, 0, id},
        {"len=65535 id=" + id, 4095, 65535, id},
        {"len=-1 id=" + big, 4095, 5002, std::string(4093, 'x')},
        {"len=200 id=MFG:A", 100, 200, "MFG:A"},  // the text ends well before the length claims
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.control.substr(0, 40));
        usbrig::control("lp0 " + c.control);
        std::string buf(static_cast<size_t>(c.cbBuf), '\x7f');
        EXPECT_EQ(c.result, QORAPrinterGetStringId("lp0", buf.data(), c.cbBuf));
        EXPECT_EQ(c.text, std::string(buf.c_str()));
    }
}

// A failed request is retried once a second, eight requests in all.  Costs ten seconds.
TEST_F(UsbDevice, DeviceIdRequestIsTriedEightTimes) {
    const std::string error = "ioctl LPIOC_GET_DEVICE_ID error:(5) Input/output error";
    for (const size_t failures : {2u, 8u}) {
        SCOPED_TRACE(failures);
        usbrig::control("lp0 idfail=" + std::to_string(failures));
        usbrig::clear_events();
        qpt::LogCapture log;
        char buf[64] = "";
        EXPECT_EQ(failures < 8 ? 0 : -1, QORAPrinterGetStringId("lp0", buf, sizeof(buf)));
        EXPECT_STREQ(failures < 8 ? "MFG:Acme;CMD:PCL,PJL;MDL:Laser 100;CLS:PRINTER;" : "", buf);
        EXPECT_EQ(failures, log.count(LOG_ERR, error + ", retry: ")) << log.dump();
        EXPECT_EQ(failures, usbrig::count_event("lp0 GET_DEVICE_ID EIO"));
    }
}

TEST_F(UsbDevice, SoftResetIsRequestNineAndFailsOnAbsentNodes) {
    EXPECT_EQ(0, QORAResetPrinter("lp1"));
    EXPECT_EQ(1u, usbrig::count_event("lp1 SOFT_RESET"));
    qpt::LogCapture log;
    usbrig::control("lp1 present=0");
    // A missing node is an error for the reset; the device ID read only notes it.
    char buf[64];
    EXPECT_EQ(-1, QORAPrinterGetStringId("lp1", buf, sizeof(buf)));
    EXPECT_EQ(1u, log.count(LOG_DEBUG, "open device [lp1] error:(2) No such file or directory"));
    EXPECT_EQ(-1, QORAResetPrinter("lp1"));
    EXPECT_EQ(1u, log.count(LOG_ERR, "open device [lp1] error:(2) No such file or directory")) << log.dump();
}

}  // namespace
