// Discovery by the real BJNP backend and by the real avahi-browse, against
// a simulated BJNP printer and avahi announcements in the printer namespace;
// recorded listings for the lines real peers never print.
#include "net_lab.hpp"

namespace {

::testing::Environment *const kLab = ::testing::AddGlobalTestEnvironment(new qpnet::LabUp({"bjnp", "avahi"}));

PrinterNetInfo caller_info() {
    PrinterNetInfo info = {};
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
    const std::string backend = "/usr/lib/cups/backend/bjnp";
    qpt::LogCapture log;
    PrinterNetInfo info = caller_info();
    {
        qpnet::StandIn bjnp(backend, "network bjnp \"Unknown\" \"network printer\"\n" + printer);
        EXPECT_EQ(QORAPrinterNetBjnpInfoGet("10.123.0.2", &info), 1);
        EXPECT_EQ(bjnp.runs(), 1);
    }
    {
        // No maker key, every time: three runs, three messages, then a failure.
        qpnet::StandIn bjnp(backend, "network bjnp://10.123.0.2:8611 \"x\" \"y\" \"mfg:acme;mdl:x1;\"\n");
        EXPECT_EQ(QORAPrinterNetBjnpInfoGet("10.123.0.2", &info), -1);
        EXPECT_EQ(QLIBCErrGet(), ERR_EXTERNAL_FAILED);
        EXPECT_EQ(bjnp.runs(), 3);
        EXPECT_EQ(log.count(LOG_ERR, "Failed to set network printer BJNP info: "), 3u) << log.dump();
    }
    // "Unidentified printer" fails the run; the next one lists the printer.
    qpnet::StandIn bjnp(backend, printer);
    qpt::write_file(backend + ".out.1", "network bjnp \"Unidentified printer\" \"x\"\n" + printer);
    info = caller_info();
    EXPECT_EQ(QORAPrinterNetBjnpInfoGet("10.123.0.2", &info), 0);
    EXPECT_EQ(bjnp.runs(), 2);
    EXPECT_STREQ(info.szModel, "X1");
}

TEST(Avahi, StartsTheDaemonAndPicksTheBestPort) {
    // The first call starts the daemon; the announcements reach it within
    // a few seconds.
    ASSERT_FALSE(QLIBCIsProcAlive("avahi-daemon"));
    PrinterNetInfo info;
    ASSERT_TRUE(qpt::wait_until(
        [&] {
            info = caller_info();
            return QORAPrinterNetAvahiInfoGet("10.123.0.2", &info) == 0;
        },
        20000));
    EXPECT_TRUE(QLIBCIsProcAlive("avahi-daemon"));
    EXPECT_STREQ(info.szQName, "mine");

    qpt::LogCapture log;
    struct Row {
        const char *ip;
        int result;
        const char *backend, *vendor, *model, *id;
    } rows[] = {
        {"10.123.0.2", 0, "socket", "ACME", "X1", "MFG:ACME;CMD:PCL,PJL;MDL:X1;CLS:PRINTER;DES:ACME X1;"},  // 9100 first
        {"10.123.0.3", 0, "lpd", "Bolt", "B-200", "MFG:Bolt;CMD:PS;MDL:B-200;CLS:PRINTER;DES:Bolt B-200;"},
        {"10.123.0.4", 1, "", "", "", ""},  // port 80 only
        {"10.123.0.6", 0, "ipp", "Not Found", "Not Found",  // no usb_MDL
         "MFG:Not Found;CMD:PCL;MDL:Not Found;CLS:PRINTER;DES:Not Found Not Found;"},
    };
    for (const Row &row : rows) {
        info = caller_info();
        EXPECT_EQ(QORAPrinterNetAvahiInfoGet(row.ip, &info), row.result) << row.ip;
        EXPECT_STREQ(info.szBackend, row.backend) << row.ip;
        EXPECT_STREQ(info.szVendor, row.vendor) << row.ip;
        EXPECT_STREQ(info.szModel, row.model) << row.ip;
        EXPECT_STREQ(info.szStringId, row.id) << row.ip;
    }
    EXPECT_EQ(log.count(LOG_ERR, "Failed to make printer string ID. Info: "), 1u) << log.dump();
}

// (Ten interrupted reads end a call: net_snmp_test and net_check_test.)
TEST(Avahi, RecordedBrowse) {
    const int fds = qpt::open_fd_count();
    const std::string rec = "=;veth-c;IPv4;Lab;_ipp._tcp;local;lab.local;";
    qpnet::StandIn browse("/usr/qora/sbin/avahi-browse",
                          rec + "10.9.9.2;8611;\"usb_MFG=L\" \"usb_MDL=Q\"\n" + rec +
                              "10.9.9.20;8611;\"usb_MFG=B\" \"usb_MDL=J\"\n" + rec +
                              "10.9.9.2;631;\"usb_MFG=I\" \"usb_MDL=" + std::string(2000, 'p') + "\"\n");
    PrinterNetInfo info = caller_info();
    EXPECT_EQ(QORAPrinterNetAvahiInfoGet("10.9.9.2", &info), 0);
    EXPECT_STREQ(info.szBackend, "bjnp");  // 8611 first; 10.9.9.20's record is another address
    EXPECT_STREQ(info.szModel, "Q");
    EXPECT_EQ(qpt::open_fd_count(), fds);
}

}  // namespace
