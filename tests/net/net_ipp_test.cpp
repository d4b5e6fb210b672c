// Driverless printing, end to end: the command configures the simulated IPP
// Everywhere printer of netlab.sh (ippeveprinter at 10.123.0.8) from what it
// says over IPP, the library prints through the real scheduler and filters,
// and the printer's spool shows what arrived.  Also the printer's status.
#include <unistd.h>
#include <filesystem>

#include "cupsd_fixture.hpp"
#include "net_lab.hpp"

namespace {

constexpr const char *kEve = "10.123.0.8";
constexpr const char *kId = "10.123.0.8-Eve";

qpt::RunResult cli(std::vector<std::string> args) {
    args.insert(args.begin(), qpt::bin_path("qoraprinter"));
    return qpt::run(args);
}

// The documents received, sorted (N-TITLE.EXT; N-TITLE.prn would be what
// the printer's print command wrote).
std::vector<std::string> spool() {
    std::vector<std::string> names;
    for (const auto &e : std::filesystem::directory_iterator("/tmp/qp-net/eve"))
        if (e.path().extension() != ".prn") names.push_back(e.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

// Waits (bounded) until the library says the job has left the queue.
bool left_queue(const std::string &job) {
    return qpt::wait_until([&] { return QORAPrinterCupsJobWaitComplete(kId, job.c_str()) == 0; }, 30000);
}

// Prints the file and answers the new job's number ("" if none appeared).
std::string submit(const char *file, const char *title) {
    const auto before = qpcups::Cupsd::jobs("Eve");
    const int r = file ? QORAPrinterCupsPrintFile(kId, file, title, 0) : QORAPrinterCupsPrintTestPage(kId);
    for (const auto &j : qpcups::Cupsd::jobs("Eve"))
        if (r == 0 && std::find(before.begin(), before.end(), j) == before.end()) return j;
    return "";
}

qpcups::Cupsd g_cupsd;  // stopped at exit

struct Lab : qpnet::LabUp {
    Lab() : LabUp({"ipp"}) {}
    void SetUp() override {
        LabUp::SetUp();
        ASSERT_TRUE(g_cupsd.start());
    }
};
::testing::Environment *const kLab = ::testing::AddGlobalTestEnvironment(new Lab);

// Printers that cannot be configured driverlessly: a clear "no" (exit 3)
// naming what is missing, and nothing registered.
TEST(Driverless, RefusesWhatIsNotIppEverywhere) {
    const struct { const char *address; int status; const char *err; } rows[] = {
        {"10.123.0.2", 3, "no IPP Everywhere printer: it takes none of the driverless formats"},
        {"10.123.0.3", 3, "10.123.0.3 does not speak IPP: no IPP answer from ipp://10.123.0.3/ipp/print"},
        {"-T", 1, "'-T' is no IPv4 address or host name"},
    };
    for (const auto &r : rows) {
        const auto res = cli({"net", "configure", "--name", "No", "--driverless", r.address});
        EXPECT_EQ(res.status, r.status) << r.address << res.err;
        EXPECT_NE(res.err.find(r.err), std::string::npos) << res.err;
    }
    EXPECT_FALSE(qpcups::Cupsd::has_queue("No"));
    EXPECT_EQ(qpt::read_file("/usr/qora/etc/nptab").find("No"), std::string::npos);
}

TEST(Driverless, ConfiguredQueueDeliversEveryJob) {
    const auto conf = cli({"net", "configure", kEve, "--name", "Eve", "--driverless"});
    ASSERT_EQ(conf.status, 0) << conf.err;
    EXPECT_EQ(conf.out, std::string(kId) + "\n");
    EXPECT_EQ(qpt::read_file("/usr/qora/etc/nptab"), "10.123.0.8=\"Eve\"\n");
    EXPECT_EQ(qpcups::Cupsd::uri_of("Eve"), "ipp://10.123.0.8/ipp/print");
    const std::string section = cli({"conf", "show", kId}).out;
    for (const char *line : {"\tBackend = ipp\n", "\tModel = ACME Eve 1\n", "\tdriver = driverless\n"})
        EXPECT_NE(section.find(line), std::string::npos) << section;

    // A PDF, a text file and the test page: one document per job, in a
    // raster format the printer announced (Apple or PWG raster).
    qpt::write_file("/tmp/eve-doc.pdf", qpt::read_file(qpt::source_path("tests/net/lab/driverless.pdf")));
    qpt::write_file("/tmp/eve-doc.txt", "A line of text.\nAnother line.\n");
    const std::string jobs[] = {submit("/tmp/eve-doc.pdf", "pdf"), submit("/tmp/eve-doc.txt", "text"),
                                submit(nullptr, "")};
    for (const auto &j : jobs) {
        ASSERT_FALSE(j.empty());
        EXPECT_TRUE(left_queue(j)) << "job " << j << "\n" << qpcups::Cupsd::lpq("Eve");
    }
    const auto names = spool();
    ASSERT_EQ(names.size(), 3u) << ::testing::PrintToString(names);
    for (size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(names[i].substr(0, names[i].find('-')), jobs[i]);
        const std::string doc = qpt::read_file("/tmp/qp-net/eve/" + names[i]);
        EXPECT_TRUE(doc.compare(0, 8, std::string("UNIRAST\0", 8)) == 0 || doc.compare(0, 4, "RaS2") == 0) << names[i];
    }

    // A stopped queue keeps its job; enabled, it delivers it.
    ASSERT_EQ(QORAPrinterCupsPrinterEnable("Eve", 0), 0);
    const std::string held = submit("/tmp/eve-doc.txt", "held");
    ASSERT_FALSE(held.empty());
    sleep(2);
    EXPECT_EQ(QORAPrinterCupsJobWaitComplete(kId, held.c_str()), 1);
    EXPECT_EQ(spool().size(), 3u);
    ASSERT_EQ(QORAPrinterCupsPrinterEnable("Eve", 1), 0);
    EXPECT_TRUE(left_queue(held));
    EXPECT_EQ(spool().size(), 4u);
}

// State, reasons and supplies as the printer reports them (restarted with
// lab/eve.attrs); a document keeps it "processing" a while, with the reasons
// its print command reports (through the queue the test before configured).
TEST(NetStatus, StateReasonsAndSupplies) {
    const auto restart = qpt::run({"/bin/bash", qpt::source_path("tests/net/netlab.sh"), "ipp", "-a",
                                   qpt::source_path("tests/net/lab/eve.attrs"), "-c",
                                   qpt::source_path("tests/net/lab/eve-print.sh")});
    ASSERT_EQ(restart.status, 0) << restart.err;
    const auto idle = cli({"net", "status", kEve, "--json"});
    EXPECT_EQ(idle.status, 0) << idle.err;
    EXPECT_EQ(idle.out,
              "{\"address\":\"10.123.0.8\",\"uri\":\"ipp://10.123.0.8/ipp/print\",\"ipp\":true,"
              "\"make_and_model\":\"ACME Eve 2\",\"state\":\"idle\",\"reasons\":[],\"message\":\"Idle.\","
              "\"accepting\":true,\"driverless\":true,"
              "\"formats\":[\"application/octet-stream\",\"image/pwg-raster\",\"image/urf\"],\"supplies\":["
              "{\"name\":\"Black, toner\",\"type\":\"toner\",\"color\":\"#000000\",\"level\":7,\"low\":10,"
              "\"high\":100},{\"name\":\"Waste\",\"type\":\"waste-toner\",\"color\":\"none\",\"level\":60,"
              "\"low\":0,\"high\":90},{\"name\":\"Drum \\\"A\\\"\",\"type\":\"opc\",\"color\":\"none\",\"level\":null,"
              "\"low\":5,\"high\":100}]}\n");

    qpt::write_file("/tmp/eve-slow.txt", "slow\n");
    ASSERT_EQ(QORAPrinterCupsPrintFile(kId, "/tmp/eve-slow.txt", "slow", 0), 0);
    std::string busy;
    EXPECT_TRUE(qpt::wait_until([&] {
        busy = cli({"net", "status", kEve}).out;
        return busy.find("state:     processing (") != std::string::npos;
    }, 20000)) << busy;
    for (const char *text : {"toner-low", "media-empty", "supply:    Black, toner (toner, #000000): 7 % (low)\n",
                             "supply:    Drum \"A\" (opc, none): unknown\n"})
        EXPECT_NE(busy.find(text), std::string::npos) << busy;

    const struct { const char *address, *json; int status; const char *out; } rows[] = {
        {"10.123.0.2", nullptr, 0, "formats:   application/octet-stream, application/postscript\ndriverless: no\n"},
        {"10.123.0.3", "--json", 3, "\"uri\":\"ipp://10.123.0.3/ipp/print\",\"ipp\":false,\"problem\":\"no IPP"},
    };
    for (const auto &r : rows) {
        const auto res = r.json ? cli({"net", "status", r.address, r.json}) : cli({"net", "status", r.address});
        EXPECT_EQ(res.status, r.status) << r.address << res.err;
        EXPECT_NE(res.out.find(r.out), std::string::npos) << res.out;
    }
}

}  // namespace
