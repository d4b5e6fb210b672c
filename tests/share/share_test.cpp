// The Samba "printers" share section (written once, never changed, complete only with eight entries or
// more) and the network printer table: adding, removing and listing entries, and lines that are not entries.
#include <gtest/gtest.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "internal.hpp"
#include "qoraprinter.h"
#include "qp_test.hpp"

namespace {

const char *kSmb = "/etc/samba/smb.reserved.conf";
const char *kNptab = "/usr/qora/etc/nptab";

const char *kWritten = "[printers]\n\tcomment = All Printers\n\tpath = /var/services/printer\n\tbrowseable = no\n"
                       "\tpublic = yes\n\tguest ok = yes\n\twritable = yes\n\tprintable = yes\n";

// Neither file at the start; no descriptor left open.
class ShareFiles : public ::testing::Test {
protected:
    void SetUp() override {
        qpt::remove_file(kNptab);
        qpt::remove_file(kSmb);
        openlog(nullptr, LOG_NDELAY, LOG_USER);  // the socket stays open once used
        fds_ = qpt::open_fd_count();
    }
    void TearDown() override { EXPECT_EQ(fds_, qpt::open_fd_count()); }
    int fds_ = 0;
};

TEST_F(ShareFiles, WritesTheSectionOnceAndNeverChangesIt) {
    qpt::write_file(kSmb, "[global]\n\tworkgroup = W");  // without its last newline: gains one first
    ASSERT_EQ(0, QORAPrinterSmbConfSetup());
    ASSERT_EQ(0, QORAPrinterSmbConfSetup());
    EXPECT_EQ(std::string("[global]\n\tworkgroup = W\n") + kWritten, qpt::read_file(kSmb));
    // An existing section, however short, is never touched.
    const std::string other = "[printers]\r\n\tpath = /elsewhere\n[x]\n\ta = b";
    qpt::write_file(kSmb, other);
    EXPECT_EQ(0, QORAPrinterSmbConfSetup());
    EXPECT_EQ(other, qpt::read_file(kSmb));
    // A directory in the file's place can be neither read nor appended to.
    qpt::remove_file(kSmb);
    qpt::mkdirs(kSmb);
    qpt::LogCapture log;
    EXPECT_EQ(-1, QORAPrinterSmbConfSetup());
    EXPECT_EQ(1u, log.count(LOG_ERR, "QLIBCFileAddSection failed.(0x")) << log.dump();
    rmdir(kSmb);
}

TEST_F(ShareFiles, ActiveTakesEightEntries) {
    qpt::LogCapture log;
    EXPECT_EQ(0, QORAPrinterIsActive());  // no file: no message
    qpt::write_file(kSmb, kWritten);
    EXPECT_EQ(0, QORAPrinterIsActive());
    EXPECT_EQ(1u, log.count(LOG_ERR, "Section [Printers] should contain at least 8 entries.[7]")) << log.dump();
    qpt::write_file(kSmb, std::string(kWritten) + "\tprinting = cups\n");
    EXPECT_EQ(1, QORAPrinterIsActive());
    EXPECT_EQ(1u, log.count("should contain")) << "only the short section is reported";
}

PrinterNetConf conf(const char *ip, const char *queue) {
    PrinterNetConf c{};
    strncpy(c.szIP, ip, sizeof(c.szIP) - 1);
    strncpy(c.szCupsPrinterName, queue, sizeof(c.szCupsPrinterName) - 1);
    return c;
}


TEST_F(ShareFiles, UpdateAddsReplacesRemovesAndReportsUnwritableFiles) {
    auto office = conf("192.168.1.20", "Office"), renamed = conf("192.168.1.20", "Desk");
    auto other = conf("10.0.0.5", "Lab");
    ASSERT_EQ(0, QORAPrinterNetUpdateConf(1, &office));
    EXPECT_NE("", qpt::read_file(kSmb)) << "adding makes sure the share exists";
    ASSERT_EQ(0, QORAPrinterNetUpdateConf(-3, &other));  // any action but 0 adds
    ASSERT_EQ(0, QORAPrinterNetUpdateConf(1, &renamed));
    const std::string both = "192.168.1.20=\"Desk\"\n10.0.0.5=\"Lab\"\n";
    EXPECT_EQ(both, qpt::read_file(kNptab));
    qpt::remove_file(kSmb);
    ASSERT_EQ(0, QORAPrinterNetUpdateConf(0, &office));  // queue differs: stays
    EXPECT_EQ(both, qpt::read_file(kNptab));
    ASSERT_EQ(0, QORAPrinterNetUpdateConf(0, &renamed));
    EXPECT_EQ("10.0.0.5=\"Lab\"\n", qpt::read_file(kNptab));
    EXPECT_FALSE(qpt::exists(kSmb)) << "removing never touches the share";
    EXPECT_EQ(-1, QORAPrinterNetUpdateConf(1, nullptr));
    // A directory in a file's place can be neither read nor written.
    qpt::remove_file(kNptab);
    qpt::mkdirs(kNptab);
    qpt::LogCapture log;
    EXPECT_EQ(-1, QORAPrinterNetUpdateConf(1, &other));
    EXPECT_EQ(1u, log.count(LOG_ERR, "Set nptab failed, devname=10.0.0.5, device=Lab")) << log.dump();
    rmdir(kNptab);
    // An unwritable share fails the call, the entry is written all the same; fields
    // filled to the last byte, unterminated, are read to their full width, never past it.
    PrinterNetConf full;
    memset(&full, 'x', sizeof(full));
    qpt::mkdirs(kSmb);
    EXPECT_EQ(-1, QORAPrinterNetUpdateConf(1, &full));
    EXPECT_EQ(1u, log.count(LOG_ERR, "update smb.conf failed, printer=" + std::string(16, 'x') + "[0x")) << log.dump();
    EXPECT_EQ(std::string(16, 'x') + "=\"" + std::string(128, 'x') + "\"\n", qpt::read_file(kNptab));
    rmdir(kSmb);
}

TEST_F(ShareFiles, ListingJoinsAddressAndQueueAndStopsAtTheFirstLineThatIsNoEntry) {
    struct Case { std::string text; int rc; std::vector<std::string> ids; const char *message = nullptr; };
    const std::string entry = "10.0.0.1=\"Q1\"\n", key(1000, 'k'), value(1023 - 1000 - 4, 'v');
    const std::vector<std::string> one = {"10.0.0.1-Q1"};
    const Case cases[] = {
        {"", 0, {}},  // missing: empty, and says so
        {"10.0.0.4=\"Q4\"\n\n10.0.0.5=\"a=b\"\r\n10.0.0.6=\"Lab\"", 0, {"10.0.0.4-Q4", "10.0.0.5-a", "10.0.0.6-Lab"}},
        {key + "=\"" + value + "\"\n", 0, {key + "-" + value}},  // a line of exactly 1023 characters
        {entry + "# a comment\n" + entry, -1, one, "Parse printer name failed. 1"},
        {entry + "=\n", -1, one, "Parse printer name failed. 2"},
        {std::string("\x01\xff garbage\n") + entry, -1, {}, "Parse printer name failed. 1"},
        {entry + "10.0.0.2=\"" + std::string(2000, 'q') + "\"\n10.0.0.3=\"forged\"\n", -1, one,
         "Failed to get network printer ID.[0x0100 "},  // over-long: its tail is no line of its own
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text.substr(0, 40));
        c.text.empty() ? qpt::remove_file(kNptab) : qpt::write_file(kNptab, c.text);
        qpt::LogCapture log;
        QLIBCErrSetEx(0, "", 0);
        PQLIBSZLIST list = QLIBCSzListAlloc(4);
        EXPECT_EQ(c.rc, QORAPrinterNetNptabEnum(&list));
        EXPECT_EQ(c.ids, std::vector<std::string>(list->pszItem, list->pszItem + list->nItem));
        QLIBCSzListFree(list);
        if (c.text.empty()) { EXPECT_EQ(ERR_OPEN_FAILED, QLIBCErrGet()); }
        EXPECT_EQ(c.message ? 1u : 0u, log.count(LOG_ERR, "Failed to get network printer ID.[0x")) << log.dump();
        if (c.message) { EXPECT_EQ(1u, log.count(LOG_ERR, c.message)) << log.dump(); }
    }
}

}  // namespace
