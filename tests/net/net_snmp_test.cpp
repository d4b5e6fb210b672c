// SNMP identification against real snmpd agents walked by the real snmpwalk,
// and recorded walks (a stand-in snmpwalk) for the device URI forms.
#include "net_lab.hpp"

namespace {

::testing::Environment *const kLab = ::testing::AddGlobalTestEnvironment(new qpnet::LabUp({"snmp"}));

// Agents with a full answer, a device ID without a device URI (in part), a
// device URI without a device ID (a failure, with one message), and one
// with another community (silence: the walks wait out the tool's time-out).
TEST(SnmpAgent, IdentifiesWhatTheAgentHolds) {
    qpt::LogCapture log;
    struct Row {
        const char *ip;
        int result;
        const char *backend, *queue, *vendor, *model, *id;
    } rows[] = {
        {"10.123.0.2", 0, "ipp", "ipp", "ACME", "X1", "MFG:ACME;CMD:PCL,PJL;MDL:X1;CLS:PRINTER;DES:ACME X1;"},
        {"10.123.0.3", 1, "", "", "Bolt Office", "B-200", "MANUFACTURER:Bolt Office;MODEL:B-200;CMD:PS;"},
        {"10.123.0.4", -1, "lpd", "queue1", nullptr, nullptr, ""},  // from LPR://
        {"10.123.0.7", 1, "", "", "", "", ""},
    };
    for (const Row &row : rows) {
        PrinterNetInfo info;
        memset(&info, 'x', sizeof info);
        ASSERT_EQ(QORAPrinterNetInfoGetByIP(row.ip, &info), row.result);
        EXPECT_STREQ(info.szReserved, "");
        EXPECT_STREQ(info.szBackend, row.backend) << row.ip;
        EXPECT_STREQ(info.szQName, row.queue) << row.ip;
        EXPECT_STREQ(row.vendor ? info.szVendor : nullptr, row.vendor) << row.ip;  // nullptr: not looked at
        EXPECT_STREQ(row.model ? info.szModel : nullptr, row.model) << row.ip;
        EXPECT_STREQ(info.szStringId, row.id) << row.ip;
    }
    EXPECT_EQ(log.count(LOG_ERR, "Failed to get network printer string ID.["), 1u) << log.dump();
}

TEST(SnmpAgent, OddValues) {
    // Hex-STRING, an empty string and a value broken by a newline don't
    // qualify; a quoted value with escaped quotes naming both keys does, and
    // comes back as printed, backslashes included.  (Its ipps device URI is
    // a recorded row below.)
    char id[1024];
    ASSERT_EQ(QORAPrinterNetGetStringId("10.123.0.5", id, sizeof id), 0);
    EXPECT_STREQ(id, "say \\\"MFG:Q;MDL:Q\\\" twice");

    // The big agent's device ID is among its first objects.
    ASSERT_EQ(QORAPrinterNetGetStringId("10.123.0.6", id, sizeof id), 0);
    EXPECT_STREQ(id, "MFG:ACME;CMD:PCL;MDL:Big;CLS:PRINTER;");
}

TEST(RecordedWalk, DeviceUriForms) {
    const std::string name = "SNMPv2-SMI::enterprises.2699.1.2.1.3.1.1.4.1.1 = STRING: ";
    auto uri = [&](const char *value) { return name + "\"" + value + "\"\n"; };
    struct Row {
        std::string walk;
        int result;
        const char *backend, *queue;
        int queue_size;
    } rows[] = {
        {uri("ipp://192.168.1.20/ipp/print"), 0, "ipp", "ipp", 64},
        {uri("LPR://192.168.1.20/queue1"), 0, "lpd", "queue1", 64},
        {uri("socket://192.168.1.20:9100"), 0, "socket", "", 64},
        {uri("lpd://192.168.1.20/queue1"), 0, "lpd", "que", 4},
        {uri("ipps://192.168.1.20/ipp/print"), -1, "-", "-", 64},
        {uri("smb://192.168.1.20/queue1"), 1, "-", "-", 64},
        {uri("smb://h/q") + uri("ipp://h/first") + uri("ipp://h/second"), 0, "ipp", "first", 64},
        {"X = STRING: socket://h:9100\n" + uri("ipp://h/q"), -1, "-", "-", 64},  // "://" but no quote
        {"X://Y = \"\n" + uri("ipp://h/q"), -1, "-", "-", 64},                   // candidate too short
        {"weird://name = STRING: \"ipp\"\n", -1, "ipp", "-", 64},                // no colon, no queue part
    };
    qpt::LogCapture log;
    const int fds = qpt::open_fd_count();
    for (const Row &row : rows) {
        qpnet::StandIn walk("/usr/bin/snmpwalk", row.walk + "End of MIB\n");
        char backend[64] = "-", queue[64] = "-";
        EXPECT_EQ(QORAPrinterNetGetStringBackend("10.9.9.9", backend, sizeof backend, queue, row.queue_size),
                  row.result)
            << row.walk;
        EXPECT_STREQ(backend, row.backend) << row.walk;
        EXPECT_STREQ(queue, row.queue) << row.walk;
    }
    EXPECT_EQ(log.count(LOG_ERR, "Fetch network printer protocol and queue name error."), 2u) << log.dump();
    EXPECT_EQ(qpt::open_fd_count(), fds);  // every pipe closed, on every path
}

TEST(RecordedWalk, InterruptedReadsAreCountedNotFatal) {
    const std::string walk = "X = STRING: \"MFG:A;MDL:B;\"\nX = STRING: \"ipp://h/q\"\n";
    char id[64], backend[16], queue[16];
    // A few interruptions while the tool is silent: the reads are retried.
    {
        qpnet::StandIn slow("/usr/bin/snmpwalk", walk, "0.35");
        qpnet::Interrupter alarms(100);
        errno = EDOM;
        EXPECT_EQ(QORAPrinterNetGetStringId("10.9.9.9", id, sizeof id), 0);
        EXPECT_EQ(errno, EDOM);
        EXPECT_EQ(QORAPrinterNetGetStringBackend("10.9.9.9", backend, sizeof backend, queue, sizeof queue), 0);
    }
    EXPECT_STREQ(id, "MFG:A;MDL:B;");
    EXPECT_STREQ(queue, "q");
    // Many more than ten: the query gives up, with the caller's errno back.
    qpnet::StandIn slower("/usr/bin/snmpwalk", walk, "1.5");
    qpnet::Interrupter alarms(100);
    errno = EDOM;
    EXPECT_EQ(QORAPrinterNetGetStringId("10.9.9.9", id, sizeof id), -1);
    EXPECT_EQ(errno, EDOM);
    EXPECT_STREQ(id, "");
}

}  // namespace
