// Address checks against the real CUPS scheduler's queues, and the real
// ping against a printer that answers and an address nobody holds.
#include <time.h>

#include "cupsd_fixture.hpp"
#include "net_lab.hpp"

namespace {

constexpr const char *kNptab = "/usr/qora/etc/nptab";

qpcups::Cupsd g_cupsd;  // stopped at exit

// The lab's network, the scheduler with a queue per form of device URI, and
// the queue Office in the printer table (the tests below change it in turn).
struct Lab : qpnet::LabUp {
    Lab() : LabUp({}) {}
    void SetUp() override {
        LabUp::SetUp();
        ASSERT_TRUE(g_cupsd.start());
        ASSERT_TRUE(qpcups::Cupsd::add_queue("Office", "ipp://10.123.0.2/ipp/print"));
        ASSERT_TRUE(qpcups::Cupsd::add_queue("Raw", "socket://10.123.0.3:9100"));
        ASSERT_TRUE(qpcups::Cupsd::add_queue("Basement", "lpd://10.123.0.4/queue1"));
        qpt::write_file(kNptab, "10.123.0.2=\"Office\"\n");
    }
};
::testing::Environment *const kLab = ::testing::AddGlobalTestEnvironment(new Lab);

TEST(QueueCheck, AddressMustStandBetweenSlashes) {
    EXPECT_EQ(QORAPrinterNetIPCheck("10.123.0.2"), 0);
    EXPECT_EQ(QORAPrinterNetIPCheck("10.123.0.20"), 1);
    EXPECT_EQ(QORAPrinterNetIPCheck("10.123.0.3"), 1);  // socket://ADDR:9100 has a port after it
    EXPECT_EQ(QORAPrinterNetIPCheck("10.123.0.4"), 0);
    EXPECT_EQ(QORAPrinterNetIPCheck(std::string(300, '1').c_str()), 1);  // cut, never overrun

    EXPECT_EQ(QORAPrinterNetCupsNameAndIPCheck("10.123.0.2", "Office"), 1);
    EXPECT_EQ(QORAPrinterNetCupsNameAndIPCheck("10.123.0.4", "Office"), 2);
    EXPECT_EQ(QORAPrinterNetCupsNameAndIPCheck("10.123.0.2", "office"), 0);  // names compare exactly
    EXPECT_EQ(QORAPrinterNetCupsNameAndIPCheck(std::string(300, '1').c_str(), "Basement"), 2);
}

TEST(QueueCheck, NothingToAskWithoutPrintersOrScheduler) {
    {
        qpnet::StandIn lpstat("/usr/bin/lpstat");  // were it run, the checks would fail
        qpt::remove_file(kNptab);
        EXPECT_EQ(QORAPrinterNetIPCheck("10.123.0.2"), 1);
        EXPECT_EQ(QORAPrinterNetCupsNameAndIPCheck("10.123.0.2", "Office"), 0);
    }
    qpt::write_file(kNptab, "10.123.0.2=\"Office\"\n");
    g_cupsd.stop();
    EXPECT_EQ(QORAPrinterNetIPCheck("10.123.0.2"), 1);
    EXPECT_EQ(QORAPrinterNetCupsNameAndIPCheck("10.123.0.2", "Office"), 0);

    // A broken table is a failed count.
    ASSERT_TRUE(g_cupsd.start());
    qpt::write_file(kNptab, "# not an entry\n");
    EXPECT_EQ(QORAPrinterNetIPCheck("10.123.0.2"), -1);

    // A listing that cannot start fails at once.
    qpt::write_file(kNptab, "10.123.0.2=\"Office\"\n");
    qpnet::StandIn lpstat("/usr/bin/lpstat");
    const time_t start = time(nullptr);
    EXPECT_EQ(QORAPrinterNetIPCheck("10.123.0.2"), -1);
    EXPECT_EQ(QLIBCErrGet(), ERR_EXTERNAL_FAILED);
    EXPECT_EQ(QORAPrinterNetCupsNameAndIPCheck("10.123.0.2", "Office"), -1);
    EXPECT_EQ(QLIBCErrGet(), ERR_EXTERNAL_FAILED);
    EXPECT_LE(time(nullptr) - start, 1);  // no pause after a tool that did not start
}

// The lines of ping's output are read in net_unit_test (and interrupted
// reads in net_snmp_test); here the real tool, and no tool at all.
TEST(Ping, RealPingAndMissing) {
    char status[16] = "";
    EXPECT_EQ(QORAPrinterNetPingStatus("10.123.0.2", status, sizeof status), 0);
    EXPECT_STREQ(status, "Online");
    EXPECT_EQ(QORAPrinterNetPingStatus("10.123.0.9", status, sizeof status), 0);
    EXPECT_STREQ(status, "Offline");

    qpnet::StandIn gone("/usr/bin/ping");
    strcpy(status, "untouched");
    errno = EDOM;
    EXPECT_EQ(QORAPrinterNetPingStatus("10.123.0.2", status, sizeof status), -1);
    EXPECT_EQ(QLIBCErrGet(), ERR_OPEN_FAILED);
    EXPECT_EQ(errno, 0);
    EXPECT_STREQ(status, "untouched");
}

}  // namespace
