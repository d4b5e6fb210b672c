// The cloud print account in printer.conf: which secret is stored, read back
// and dropped, and that secrets never reach the file in plain text.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "conf_test_util.hpp"
#include "qoracore.h"
#include "qoraprinter.h"
#include "qp_test.hpp"

namespace {

using conft::kConf;
using conft::put;
using conft::section;

constexpr const char *kSection = "Google Cloud Print";

PrinterGoogleInfo info(const std::string &account, const std::string &pass, const std::string &token) {
    PrinterGoogleInfo i{};
    put(i.szAccount, account);
    put(i.szPassword, pass);
    put(i.szRefreshToken, token);
    return i;
}

class Cloud : public conft::ConfTest {};

TEST_F(Cloud, PasswordIsStoredEncipheredAndReadBack) {
    const std::string before = "[p]\n\tproducer = ACME\n";
    qpt::write_file(kConf, before);
    const PrinterGoogleInfo in = info("user@example.com", "s3cret pass", "");
    ASSERT_EQ(QORAPrinterGoogleInfoSet(&in), 0);

    const std::string text = qpt::read_file(kConf);
    EXPECT_EQ(text.compare(0, before.size(), before), 0);
    EXPECT_EQ(text.find("s3cret"), std::string::npos) << text;
    auto s = section(kSection);
    EXPECT_EQ(s.at("google account"), "user@example.com");
    EXPECT_FALSE(s.at("google pass").empty());
    EXPECT_EQ(s.count("refresh token"), 0u);

    PrinterGoogleInfo out;
    std::memset(&out, 0x55, sizeof out);
    ASSERT_EQ(QORAPrinterGoogleInfoGet(&out), 0);
    EXPECT_STREQ(out.szAccount, "user@example.com");
    EXPECT_STREQ(out.szPassword, "s3cret pass");
    EXPECT_STREQ(out.szRefreshToken, "");
}

TEST_F(Cloud, TokenReplacesPasswordButPasswordKeepsToken) {
    qpt::write_file(kConf, std::string("[") + kSection + "]\n\tnote = kept\n");
    PrinterGoogleInfo in = info("acct", "pw", "");
    ASSERT_EQ(QORAPrinterGoogleInfoSet(&in), 0);

    in = info("acct", "", "tok-123");
    ASSERT_EQ(QORAPrinterGoogleInfoSet(&in), 0);
    auto s = section(kSection);
    EXPECT_EQ(s.count("google pass"), 0u);
    const std::string token_cipher = s.at("refresh token");
    EXPECT_NE(token_cipher, "tok-123");
    EXPECT_EQ(s.at("note"), "kept");
    PrinterGoogleInfo out{};
    ASSERT_EQ(QORAPrinterGoogleInfoGet(&out), 0);
    EXPECT_STREQ(out.szRefreshToken, "tok-123");
    EXPECT_STREQ(out.szPassword, "");

    // Both given: the password wins; the stored token stays but is shadowed.
    in = info("acct", "pw2", "ignored");
    ASSERT_EQ(QORAPrinterGoogleInfoSet(&in), 0);
    s = section(kSection);
    EXPECT_EQ(s.size(), 4u);
    EXPECT_EQ(s.count("google pass"), 1u);
    ASSERT_EQ(QORAPrinterGoogleInfoGet(&out), 0);
    EXPECT_STREQ(out.szPassword, "pw2");
    EXPECT_STREQ(out.szRefreshToken, "");
    EXPECT_EQ(s.at("refresh token"), token_cipher);
}

TEST_F(Cloud, RejectedRecordsLeaveTheFileAlone) {
    const std::string before = "[p]\n\tproducer = ACME\n";
    qpt::write_file(kConf, before);
    struct Case {
        PrinterGoogleInfo in;
        const char *message;
    } cases[] = {
        {info("", "pw", ""), "google account can't be empty"},
        {info("acct", "", ""), nullptr},  // nothing to encipher
    };
    for (auto &c : cases) {
        qpt::LogCapture log;
        EXPECT_EQ(QORAPrinterGoogleInfoSet(&c.in), -1);
        if (c.message) {
            EXPECT_EQ(log.count(3, c.message), 1u) << log.dump();
        } else {
            // An empty secret is refused by the cipher or comes out empty.
            EXPECT_EQ(log.count(3, "encrypt failed") + log.count(3, "refresh token can't be empty"), 1u)
                << log.dump();
        }
        EXPECT_EQ(log.lines().size(), 1u) << log.dump();
        EXPECT_EQ(qpt::read_file(kConf), before);
    }
    qpt::LogCapture log;
    EXPECT_EQ(QORAPrinterGoogleInfoSet(nullptr), -1);
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
    EXPECT_STREQ(QLIBCErrorGetFile(), "printer_google_info_set.cpp");
    EXPECT_EQ(QORAPrinterGoogleInfoGet(nullptr), -1);
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
    EXPECT_STREQ(QLIBCErrorGetFile(), "printer_google_info_get.cpp");
    EXPECT_EQ(log.lines().size(), 0u) << log.dump();
    EXPECT_EQ(qpt::read_file(kConf), before);
}

TEST_F(Cloud, GetWithoutAccountClearsTheRecordQuietly) {
    for (const char *conf : {"", "[p]\n\tproducer = x\n", "[Google Cloud Print]\n\tgoogle pass = abc\n"}) {
        SCOPED_TRACE(conf);
        if (*conf) qpt::write_file(kConf, conf);
        PrinterGoogleInfo out;
        std::memset(&out, 0x5a, sizeof out);
        conft::mark_slot();
        qpt::LogCapture log;
        EXPECT_EQ(QORAPrinterGoogleInfoGet(&out), -1);
        const PrinterGoogleInfo zero{};
        EXPECT_EQ(std::memcmp(&out, &zero, sizeof out), 0);
        EXPECT_EQ(log.lines().size(), 0u) << log.dump();
        // Without a file the core library's failed read sets the slot itself.
        if (*conf) {
            EXPECT_TRUE(conft::slot_is_marked());
        }
    }
}

TEST_F(Cloud, StoredValuesThatCannotBeUsed) {
    PrinterGoogleInfo in = info("acct", "", "tok");
    ASSERT_EQ(QORAPrinterGoogleInfoSet(&in), 0);
    in = info("acct", "pw", "");
    ASSERT_EQ(QORAPrinterGoogleInfoSet(&in), 0);

    // An account longer than the record holds is cut to 254 characters.
    const std::string long_account(300, 'a');
    ASSERT_GE(QLIBCFileSetSectionValue(kConf, kSection, "google account", long_account.c_str()), 0);
    PrinterGoogleInfo out{};
    ASSERT_EQ(QORAPrinterGoogleInfoGet(&out), 0);
    EXPECT_EQ(std::string(out.szAccount), long_account.substr(0, 254));

    // A damaged password fails even though a good token is stored.
    ASSERT_GE(QLIBCFileSetSectionValue(kConf, kSection, "google pass", "not-a-cipher-text"), 0);
    qpt::LogCapture log;
    EXPECT_EQ(QORAPrinterGoogleInfoGet(&out), -1);
    EXPECT_EQ(log.count(3, "decrypt failed"), 1u) << log.dump();
    EXPECT_EQ(std::string(out.szAccount), long_account.substr(0, 254));
    EXPECT_STREQ(out.szRefreshToken, "");

    // No secret at all.
    qpt::write_file(kConf, "[Google Cloud Print]\n\tgoogle account = lonely\n");
    log.reset();
    EXPECT_EQ(QORAPrinterGoogleInfoGet(&out), -1);
    EXPECT_STREQ(out.szAccount, "lonely");
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u) << log.dump();
    EXPECT_EQ(lines[0].text.substr(0, lines[0].text.find(':')), "printer_google_info_get.cpp");
    EXPECT_NE(lines[0].text.find(" Can't get password and refresh_token"), std::string::npos);
}

}  // namespace
