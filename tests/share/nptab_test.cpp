// The network printer table: adding, removing and listing entries, and what
// the listing does with lines that are not entries.
#include <gtest/gtest.h>
#include <string.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "qoraprinter.h"
#include "qp_test.hpp"

namespace {

const char *kNptab = "/usr/qora/etc/nptab";
const char *kSmb = "/etc/samba/smb.reserved.conf";

PrinterNetConf conf(const char *ip, const char *queue) {
    PrinterNetConf c;
    memset(&c, 0, sizeof(c));
    strncpy(c.szIP, ip, sizeof(c.szIP) - 1);
    strncpy(c.szCupsPrinterName, queue, sizeof(c.szCupsPrinterName) - 1);
    return c;
}

// Runs the listing on a fresh list; the result and the items.
std::pair<int, std::vector<std::string>> list_ids() {
    PQLIBSZLIST list = QLIBCSzListAlloc(4);
    int rc = QORAPrinterNetNptabEnum(&list);
    std::vector<std::string> out;
    for (int i = 0; i < list->nItem; ++i) out.push_back(list->pszItem[i]);
    QLIBCSzListFree(list);
    return {rc, out};
}

class Nptab : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(qpt::in_sandbox());
        qpt::remove_file(kNptab);
        qpt::remove_file(kSmb);
        openlog(nullptr, LOG_NDELAY, LOG_USER);  // the socket stays open once used
        fds_ = qpt::open_fd_count();
    }
    void TearDown() override { EXPECT_EQ(fds_, qpt::open_fd_count()); }
    int fds_ = 0;
};

TEST_F(Nptab, AddReplacesRemoveNeedsAddressAndQueue) {
    auto office = conf("192.168.1.20", "Office_Laser");
    ASSERT_EQ(0, QORAPrinterNetUpdateConf(1, &office));
    EXPECT_NE("", qpt::read_file(kSmb)) << "adding makes sure the share exists";
    auto other = conf("10.0.0.5", "Lab");
    ASSERT_EQ(0, QORAPrinterNetUpdateConf(-3, &other));
    auto renamed = conf("192.168.1.20", "Front_Desk");
    ASSERT_EQ(0, QORAPrinterNetUpdateConf(1, &renamed));
    EXPECT_EQ("192.168.1.20=\"Front_Desk\"\n10.0.0.5=\"Lab\"\n", qpt::read_file(kNptab));

    qpt::remove_file(kSmb);
    ASSERT_EQ(0, QORAPrinterNetUpdateConf(0, &office));  // queue differs: stays
    EXPECT_EQ("192.168.1.20=\"Front_Desk\"\n10.0.0.5=\"Lab\"\n", qpt::read_file(kNptab));
    ASSERT_EQ(0, QORAPrinterNetUpdateConf(0, &renamed));
    EXPECT_EQ("10.0.0.5=\"Lab\"\n", qpt::read_file(kNptab));
    EXPECT_FALSE(qpt::exists(kSmb)) << "removing never touches the share";

    qpt::remove_file(kNptab);
    EXPECT_EQ(0, QORAPrinterNetUpdateConf(0, &other));
    qpt::write_file(kNptab, "");
    EXPECT_EQ(0, QORAPrinterNetUpdateConf(0, &other));
}

TEST_F(Nptab, FullFieldsAndFailuresAreReported) {
    // Fields filled to the last byte without a terminator are read as
    // their full width, never past it.
    PrinterNetConf full;
    memset(&full, 'x', sizeof(full));
    ASSERT_EQ(0, QORAPrinterNetUpdateConf(1, &full));
    EXPECT_EQ(std::string(16, 'x') + "=\"" + std::string(128, 'x') + "\"\n", qpt::read_file(kNptab));

    qpt::LogCapture log;
    EXPECT_EQ(-1, QORAPrinterNetUpdateConf(1, nullptr));
    EXPECT_EQ(1u, log.count(LOG_ERR, "Invaild Argument (((void *)0) != pNPConf)=[0]")) << log.dump();

    // The table cannot be written: both messages.
    qpt::remove_file(kNptab);
    qpt::mkdirs(kNptab);
    auto c = conf("10.0.0.9", "Q");
    log.reset();
    EXPECT_EQ(-1, QORAPrinterNetUpdateConf(1, &c));
    EXPECT_EQ(1u, log.count(LOG_ERR, "Set nptab failed, devname=10.0.0.9, device=Q"));
    EXPECT_EQ(1u, log.count(LOG_ERR, "/usr/qora/etc/nptab update entry 10.0.0.9=Q failed.(action=1)(0x")) << log.dump();
    rmdir(kNptab);

    // The share cannot be written: the entry stays, the call fails.
    qpt::remove_file(kSmb);
    qpt::mkdirs(kSmb);
    log.reset();
    EXPECT_EQ(-1, QORAPrinterNetUpdateConf(1, &c));
    EXPECT_EQ(1u, log.count(LOG_ERR, "update smb.conf failed, printer=10.0.0.9[0x")) << log.dump();
    EXPECT_EQ("10.0.0.9=\"Q\"\n", qpt::read_file(kNptab));
    rmdir(kSmb);
}

TEST_F(Nptab, ListingJoinsAddressAndQueue) {
    QLIBCErrSetEx(0, "", 0);
    auto [rc, ids] = list_ids();
    EXPECT_EQ(0, rc);
    EXPECT_TRUE(ids.empty());
    EXPECT_EQ(ERR_OPEN_FAILED, QLIBCErrGet()) << "a missing table is empty, and says so";

    qpt::write_file(kNptab, "192.168.1.20=\"Office_Laser\"\n\n10.0.0.5=\"a=b\"\r\n10.0.0.6=\"Lab\"");
    std::tie(rc, ids) = list_ids();
    EXPECT_EQ(0, rc);
    EXPECT_EQ((std::vector<std::string>{"192.168.1.20-Office_Laser", "10.0.0.5-a", "10.0.0.6-Lab"}), ids);

    // An entry line of exactly 1023 characters still fits.
    std::string key(1000, 'k'), value(1023 - 1000 - 4, 'v');
    qpt::write_file(kNptab, key + "=\"" + value + "\"\n");
    std::tie(rc, ids) = list_ids();
    EXPECT_EQ(0, rc);
    ASSERT_EQ(1u, ids.size());
    EXPECT_EQ(key + "-" + value, ids[0]);
}

TEST_F(Nptab, FirstLineThatIsNoEntryEndsTheListing) {
    struct Case {
        std::string text;
        size_t kept;
        const char *message;
    };
    const std::string entry = "10.0.0.1=\"Q1\"\n";
    const Case cases[] = {
        {entry + "# a comment\n" + entry, 1, "Parse printer name failed. 1"},
        {entry + "\r\n", 1, "Parse printer name failed. 1"},
        {entry + "=\n", 1, "Parse printer name failed. 2"},
        {std::string("\x01\xff garbage\n") + entry, 0, "Parse printer name failed. 1"},
        // Over-long: its tail must not be read as a line of its own.
        {entry + "10.0.0.2=\"" + std::string(2000, 'q') + "\"\n" + "10.0.0.3=\"forged\"\n", 1,
         "Failed to get network printer ID.[0x0100 "},
    };
    for (const auto &c : cases) {
        qpt::write_file(kNptab, c.text);
        qpt::LogCapture log;
        auto [rc, ids] = list_ids();
        EXPECT_EQ(-1, rc) << c.text.substr(0, 40);
        EXPECT_EQ(c.kept, ids.size()) << c.text.substr(0, 40);
        EXPECT_EQ(1u, log.count(LOG_ERR, c.message)) << log.dump();
        EXPECT_EQ(1u, log.count(LOG_ERR, "Failed to get network printer ID.[0x")) << log.dump();
    }

    qpt::LogCapture log;
    EXPECT_EQ(-1, QORAPrinterNetNptabEnum(nullptr));
    EXPECT_EQ(1u, log.count(LOG_ERR, "Invaild Argument (((void *)0) != ppList)=[0]"));
}

}  // namespace
