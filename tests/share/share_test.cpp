// The Samba "printers" share section: written once, never changed, complete only with eight entries or more.
#include <gtest/gtest.h>
#include <unistd.h>
#include <syslog.h>

#include <string>

#include "internal.hpp"
#include "qoraprinter.h"
#include "qp_test.hpp"

namespace {

const char *kSmb = "/etc/samba/smb.reserved.conf";

const char *kWritten = "[printers]\n\tcomment = All Printers\n\tpath = /var/services/printer\n\tbrowseable = no\n"
                       "\tpublic = yes\n\tguest ok = yes\n\twritable = yes\n\tprintable = yes\n";

TEST(Share, WritesTheSectionOnceAndSambaAcceptsIt) {
    qpt::write_file(kSmb, "[global]\n\tworkgroup = W");  // without its last newline: gains one first
    ASSERT_EQ(0, QORAPrinterSmbConfSetup());
    ASSERT_EQ(0, QORAPrinterSmbConfSetup());
    EXPECT_EQ(std::string("[global]\n\tworkgroup = W\n") + kWritten, qpt::read_file(kSmb));
    // An existing section, however short, is never touched.
    for (std::string text : {"[printers]\n\tpath = /elsewhere\n", "[printers]\r\n\n[x]\n\ta = b"}) {
        qpt::write_file(kSmb, text);
        EXPECT_EQ(0, QORAPrinterSmbConfSetup()) << text;
        EXPECT_EQ(text, qpt::read_file(kSmb));
    }
    // A directory in the file's place can be neither read nor appended to; the core library's code stays.
    qpt::remove_file(kSmb);
    qpt::mkdirs(kSmb);
    qpt::LogCapture log;
    EXPECT_EQ(-1, QORAPrinterSmbConfSetup());
    EXPECT_EQ(1u, log.count(LOG_ERR, "QLIBCFileAddSection failed.(0x")) << log.dump();
    rmdir(kSmb);
}

TEST(Share, ActiveTakesEightEntries) {
    qpt::remove_file(kSmb);
    qpt::LogCapture log;
    EXPECT_EQ(0, QORAPrinterIsActive());  // no file: no message
    qpt::write_file(kSmb, kWritten);
    EXPECT_EQ(0, QORAPrinterIsActive());
    EXPECT_EQ(1u, log.count(LOG_ERR, "Section [Printers] should contain at least 8 entries.[7]")) << log.dump();
    qpt::write_file(kSmb, std::string(kWritten) + "\tprinting = cups\n");
    EXPECT_EQ(1, QORAPrinterIsActive());
    EXPECT_EQ(1u, log.count("should contain")) << "only the short section is reported";
}

}  // namespace
