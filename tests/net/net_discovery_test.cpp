// Discovery by the real BJNP backend and by the real avahi-browse, against
// a simulated BJNP printer and avahi announcements in the printer namespace;
// recorded listings for the lines real peers never print.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "net_lab.hpp"
#include "qoraprinter.h"
#include "qp_test.hpp"

namespace {

class Lab : public ::testing::Environment {
public:
    void SetUp() override {
        ASSERT_TRUE(qpnet::lab_up({"bjnp", "avahi", "replay"}));
        // The daemons of the lab and the one the library starts use the
        // standard system bus of this sandbox.
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/run/dbus/system_bus_socket", 1);
    }
};
::testing::Environment *const kLab = ::testing::AddGlobalTestEnvironment(new Lab);

PrinterNetInfo caller_info() {
    PrinterNetInfo info;
    memset(&info, 0, sizeof info);
    strcpy(info.szReserved, "mine");
    strcpy(info.szQName, "mine");
    return info;
}

TEST(Bjnp, RealBackendFindsTheSimulatedPrinter) {
    PrinterNetInfo info = caller_info();
    ASSERT_EQ(QORAPrinterNetBjnpInfoGet("10.123.0.2", &info), 0);
    EXPECT_STREQ(info.szBackend, "bjnp");
    EXPECT_STREQ(info.szVendor, "ACME");
    EXPECT_STREQ(info.szModel, "X1");
    EXPECT_STREQ(info.szStringId, "MFG:ACME;CMD:BJL,NCCe;MDL:X1;CLS:PRINTER;DES:ACME X1");
    EXPECT_STREQ(info.szQName, "mine");  // not the backend's to touch
    EXPECT_STREQ(info.szReserved, "mine");

    for (const std::string &ip : std::vector<std::string>{"10.123.0.20", std::string(300, '7')}) {
        PrinterNetInfo none = caller_info();
        EXPECT_EQ(QORAPrinterNetBjnpInfoGet(ip.c_str(), &none), 1) << ip;
        EXPECT_STREQ(none.szBackend, "");
    }
}

TEST(Bjnp, RecordedListings) {
    const std::string printer =
        "network bjnp://10.123.0.2:8611 \"ACME X1\" \"ACME X1 10.123.0.2\" \"MFG:ACME;MDL:X1;\"\n";
    qpt::LogCapture log;

    qpnet::replay("bjnp", "network bjnp \"Unknown\" \"network printer\"\n" + printer);
    PrinterNetInfo info = caller_info();
    EXPECT_EQ(QORAPrinterNetBjnpInfoGet("10.123.0.2", &info), 1);
    EXPECT_EQ(qpnet::replay_runs("bjnp"), 1);

    // No maker key, every time: three runs, three messages, then a failure.
    qpnet::replay("bjnp", "network bjnp://10.123.0.2:8611 \"x\" \"y\" \"mfg:acme;mdl:x1;\"\n");
    EXPECT_EQ(QORAPrinterNetBjnpInfoGet("10.123.0.2", &info), -1);
    EXPECT_EQ(QLIBCErrGet(), ERR_EXTERNAL_FAILED);
    EXPECT_EQ(qpnet::replay_runs("bjnp"), 3);
    EXPECT_EQ(log.count(LOG_ERR, "Failed to set network printer BJNP info: network bjnp://10.123.0.2:8611"), 3u)
        << log.dump();

    // "Unidentified printer" fails the run; the next one lists the printer.
    qpnet::replay("bjnp", printer);
    qpt::write_file("/tmp/qp-net/replay/bjnp.out.1", "network bjnp \"Unidentified printer\" \"x\"\n" + printer);
    info = caller_info();
    EXPECT_EQ(QORAPrinterNetBjnpInfoGet("10.123.0.2", &info), 0);
    EXPECT_EQ(qpnet::replay_runs("bjnp"), 2);
    EXPECT_STREQ(info.szModel, "X1");
    qpnet::unreplay("bjnp");
}

TEST(Avahi, StartsTheDaemonAndPicksTheBestPort) {
    ASSERT_FALSE(QLIBCIsProcAlive("avahi-daemon"));
    PrinterNetInfo info = caller_info();
    QORAPrinterNetAvahiInfoGet("10.123.0.2", &info);
    EXPECT_TRUE(QLIBCIsProcAlive("avahi-daemon"));
    // The announcements reach a fresh daemon within a few seconds.
    ASSERT_TRUE(qpt::wait_until(
        [&] {
            info = caller_info();
            return QORAPrinterNetAvahiInfoGet("10.123.0.2", &info) == 0;
        },
        20000));
    EXPECT_STREQ(info.szBackend, "socket");  // 9100 before 631
    EXPECT_STREQ(info.szVendor, "ACME");
    EXPECT_STREQ(info.szModel, "X1");
    EXPECT_STREQ(info.szStringId, "MFG:ACME;CMD:PCL,PJL;MDL:X1;CLS:PRINTER;DES:ACME X1;");
    EXPECT_STREQ(info.szQName, "mine");
}

TEST(Avahi, OtherAnnouncements) {
    qpt::LogCapture log;
    PrinterNetInfo info = caller_info();
    ASSERT_EQ(QORAPrinterNetAvahiInfoGet("10.123.0.3", &info), 0);
    EXPECT_STREQ(info.szBackend, "lpd");
    EXPECT_STREQ(info.szModel, "B-200");

    info = caller_info();
    EXPECT_EQ(QORAPrinterNetAvahiInfoGet("10.123.0.4", &info), 1);  // port 80 only
    EXPECT_STREQ(info.szBackend, "");

    info = caller_info();
    ASSERT_EQ(QORAPrinterNetAvahiInfoGet("10.123.0.6", &info), 0);  // no usb_MDL
    EXPECT_STREQ(info.szVendor, "Not Found");
    EXPECT_STREQ(info.szStringId, "MFG:Not Found;CMD:PCL;MDL:Not Found;CLS:PRINTER;DES:Not Found Not Found;");
    EXPECT_EQ(log.count(LOG_ERR, "Failed to make printer string ID. Info: "), 1u) << log.dump();
}

TEST(Avahi, RecordedBrowse) {
    const int fds = qpt::open_fd_count();
    const std::string rec = "=;veth-c;IPv4;Lab;_ipp._tcp;local;lab.local;";
    qpnet::replay("avahi-browse", rec + "10.9.9.20;8611;\"usb_MFG=B\" \"usb_MDL=J\"\n" + rec +
                                      "10.9.9.2;631;\"usb_MFG=I\" \"usb_MDL=" + std::string(2000, 'p') + "\"\n" +
                                      rec + "10.9.9.2;515;\"usb_MFG=L\" \"usb_MDL=Q\"\n");
    PrinterNetInfo info = caller_info();
    EXPECT_EQ(QORAPrinterNetAvahiInfoGet("10.9.9.2", &info), 0);
    EXPECT_STREQ(info.szBackend, "lpd");  // 10.9.9.20's bjnp record is another address
    EXPECT_STREQ(info.szModel, "Q");

    // Interrupted reads: a few are retried, ten end the call untouched.
    qpnet::replay("avahi-browse", rec + "10.9.9.2;631;\"usb_MFG=I\" \"usb_MDL=Z\"\n", "0.35");
    {
        qpnet::Interrupter alarms(100);
        info = caller_info();
        EXPECT_EQ(QORAPrinterNetAvahiInfoGet("10.9.9.2", &info), 0);
        EXPECT_STREQ(info.szModel, "Z");
    }
    qpnet::replay("avahi-browse", rec + "10.9.9.2;631;\"usb_MFG=I\" \"usb_MDL=Z\"\n", "1.5");
    {
        qpnet::Interrupter alarms(100);
        info = caller_info();
        EXPECT_EQ(QORAPrinterNetAvahiInfoGet("10.9.9.2", &info), -1);
        EXPECT_STREQ(info.szBackend, "");
    }
    qpnet::unreplay("avahi-browse");
    EXPECT_EQ(qpt::open_fd_count(), fds);
}

}  // namespace
