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

class UsbDevice : public ::testing::Test {
protected:
    void SetUp() override {
        usbrig::setup();
        fds_ = qpt::open_fd_count();
    }
    void TearDown() override { EXPECT_EQ(fds_, qpt::open_fd_count()) << "descriptor leak"; }
    int fds_ = 0;
};

TEST_F(UsbDevice, OpensRelativeAndFullNames) {
    int fd = QORAPrinterDevOpen("lp0", 0);
    ASSERT_GE(fd, 0);
    close(fd);
    fd = QORAPrinterDevOpen("/dev/usb/lp1", 0);
    ASSERT_GE(fd, 0);
    close(fd);
    auto ev = usbrig::events();
    ASSERT_EQ(4u, ev.size());
    EXPECT_EQ("lp0 open", ev[0]);
    EXPECT_EQ("lp1 open", ev[2]);
}

TEST_F(UsbDevice, RefusesBadNamesWithoutRetry) {
    qpt::LogCapture log;
    QLIBCErrSetEx(0x4242, "marker", 1);
    EXPECT_EQ(-1, QORAPrinterDevOpen(nullptr, 8));
    EXPECT_EQ(-1, QORAPrinterDevOpen("../lp0", 8));
    EXPECT_EQ(-1, QORAPrinterDevOpen("/dev/usb/../usb/lp0", 8));
    EXPECT_EQ(3u, log.count(LOG_ERR, "bad parameter."));
    EXPECT_EQ(0x4242u, QLIBCErrGet()) << "the open sets no error code";

    // Absent nodes and names beyond the two nodes fail at once.
    usbrig::control("lp1 present=0");
    for (const std::string &name : std::vector<std::string>{"lp1", "lp2", "lp10", "lpx", std::string(300, 'l')}) {
        errno = 0;
        EXPECT_EQ(-1, QORAPrinterDevOpen(name.c_str(), 8)) << name;
        EXPECT_EQ(ENOENT, errno) << name;
    }
    EXPECT_EQ(0u, log.count("busy")) << log.dump();
    EXPECT_TRUE(usbrig::events().empty());
}

TEST_F(UsbDevice, BusyNodeIsRetriedOncePerSecond) {
    qpt::LogCapture log;
    usbrig::control("lp0 busy=2");
    time_t t0 = time(nullptr);
    int fd = QORAPrinterDevOpen("lp0", 8);
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_GE(time(nullptr) - t0, 1);
    EXPECT_EQ(2u, log.count(LOG_DEBUG, "lp0 device busy, retring...")) << log.dump();
    EXPECT_EQ(2u, usbrig::count_event("lp0 open EBUSY"));

    log.reset();
    usbrig::control("lp0 busy=1");
    EXPECT_EQ(-1, QORAPrinterDevOpen("lp0", 0));
    EXPECT_EQ(EBUSY, errno);
    EXPECT_EQ(1u, log.count(LOG_ERR, "lp0 device open fail reach max, abort.")) << log.dump();
    EXPECT_EQ(0u, log.count("retring"));
}

struct IdCase {
    const char *control;  // extra control keys for lp0
    int cbBuf;
    int result;
    std::string text;
};

TEST_F(UsbDevice, DeviceIdLengthIsReportedNeverTrusted) {
    const std::string id = "MFG:Acme;CMD:PCL;MDL:Laser 100;";
    const std::string big(5000, 'x');  // more than the reply can carry
    const IdCase cases[] = {
        {"len=-1", 1024, 0, id},
        {"len=416", 256, 416, id},
        {"len=416", 1024, 0, id},
        {"len=-1", 1, static_cast<int>(id.size()) + 2, ""},
        {"len=-1", 10, static_cast<int>(id.size()) + 2, id.substr(0, 9)},
        {"len=0", 64, 0, id},
        {"len=1", 64, 0, id},
        {"len=65535", 4095, 65535, id},
    };
    for (const auto &c : cases) {
        usbrig::control("lp0 " + std::string(c.control) + " id=" + id);
        std::string buf(static_cast<size_t>(c.cbBuf), '\x7f');
        EXPECT_EQ(c.result, QORAPrinterGetStringId("lp0", buf.data(), c.cbBuf)) << c.control << " " << c.cbBuf;
        EXPECT_EQ(c.text, std::string(buf.c_str())) << c.control << " " << c.cbBuf;
    }

    usbrig::control("lp0 len=-1 id=" + big);
    std::string buf(4095, '\0');
    EXPECT_EQ(5002, QORAPrinterGetStringId("lp0", buf.data(), 4095));
    EXPECT_EQ(std::string(4093, 'x'), std::string(buf.c_str()));

    // A reply that stops in the middle leaves the rest of the cleared
    // buffer as the terminator.
    usbrig::control("lp0 len=200 idhex=4d46473a41");
    EXPECT_EQ(200, QORAPrinterGetStringId("lp0", buf.data(), 100));
    EXPECT_STREQ("MFG:A", buf.c_str());
    EXPECT_EQ(usbrig::count_event("lp0 open"), usbrig::count_event("lp0 close"));
}

TEST_F(UsbDevice, DeviceIdRequestFailuresAreRetried) {
    qpt::LogCapture log;
    usbrig::control("lp0 idfail=2");
    char buf[256];
    EXPECT_EQ(0, QORAPrinterGetStringId("lp0", buf, sizeof(buf)));
    EXPECT_STREQ("MFG:Acme;CMD:PCL,PJL;MDL:Laser 100;CLS:PRINTER;", buf);
    EXPECT_EQ(1u, log.count(LOG_ERR, "ioctl LPIOC_GET_DEVICE_ID error:(5) Input/output error, retry: 0"));
    EXPECT_EQ(1u, log.count(LOG_ERR, "ioctl LPIOC_GET_DEVICE_ID error:(5) Input/output error, retry: 1"));
    EXPECT_EQ(3u, usbrig::count_event("lp0 GET_DEVICE_ID") + usbrig::count_event("lp0 GET_DEVICE_ID EIO"));

    // Absent: one debug line, no request.
    log.reset();
    usbrig::control("lp1 present=0");
    EXPECT_EQ(-1, QORAPrinterGetStringId("lp1", buf, sizeof(buf)));
    EXPECT_EQ(1u, log.count(LOG_DEBUG, "open device [lp1] error:(2) No such file or directory")) << log.dump();
}

// Costs the full eight seconds of request retries.
TEST_F(UsbDevice, NodeThatVanishesAfterOpenFailsAndIsClosed) {
    qpt::LogCapture log;
    usbrig::control("lp0 vanish=1");
    char buf[64];
    EXPECT_EQ(-1, QORAPrinterGetStringId("lp0", buf, sizeof(buf)));
    EXPECT_EQ(8u, log.count(LOG_ERR, "ioctl LPIOC_GET_DEVICE_ID error:(19) No such device, retry: "));
    // The eight retry lines and the final one.
    EXPECT_EQ(9u, log.count(LOG_ERR, "ioctl LPIOC_GET_DEVICE_ID error:(19) No such device")) << log.dump();
    EXPECT_EQ(1u, usbrig::count_event("lp0 close"));
}

TEST_F(UsbDevice, SoftResetIsRequestNine) {
    EXPECT_EQ(0, QORAResetPrinter("lp1"));
    EXPECT_EQ(1u, usbrig::count_event("lp1 SOFT_RESET"));
    EXPECT_EQ(0u, usbrig::count_event("lp1 DISABLE 0"));

    qpt::LogCapture log;
    usbrig::control("lp1 present=0");
    EXPECT_EQ(-1, QORAResetPrinter("lp1"));
    EXPECT_EQ(1u, log.count(LOG_ERR, "open device [lp1] error:(2) No such file or directory")) << log.dump();
}

// Costs eight seconds: every retry of the open is used.
TEST_F(UsbDevice, NodeThatStaysBusyGivesUpAfterEightRetries) {
    qpt::LogCapture log;
    usbrig::control("lp0 busy=100");
    EXPECT_EQ(-1, QORAResetPrinter("lp0"));
    EXPECT_EQ(8u, log.count(LOG_DEBUG, "lp0 device busy, retring..."));
    EXPECT_EQ(1u, log.count(LOG_ERR, "lp0 device open fail reach max, abort."));
    EXPECT_EQ(1u, log.count(LOG_ERR, "open device [lp0] error:(16) Device or resource busy")) << log.dump();
    EXPECT_EQ(9u, usbrig::count_event("lp0 open EBUSY"));
}

}  // namespace
