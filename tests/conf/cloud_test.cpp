// The cloud print account in printer.conf: which secret is stored, read back
// and dropped, and that secrets never reach the file in plain text.
#include <cstring>
#include <regex>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "conf_test_util.hpp"
#include "qoracore.h"
#include "qoraprinter.h"
#include "qp_test.hpp"

namespace {

using conft::kConf;
using conft::section;

constexpr const char *kSection = "Google Cloud Print";

// A record's three texts, to compare in one go.
std::tuple<std::string, std::string, std::string> texts(const PrinterGoogleInfo &i) {
    return {i.szAccount, i.szPassword, i.szRefreshToken};
}

class Cloud : public conft::ConfTest {};

// The password is stored enciphered; a token alone replaces it; given both,
// the password wins and the stored token stays, shadowed.  Other keys and
// sections keep their bytes.
TEST_F(Cloud, WhichSecretIsStoredAndReadBack) {
    const std::string before = "[p]\n\tproducer = ACME\n";
    qpt::write_file(kConf, before + "[" + kSection + "]\n\tnote = kept\n");
    PrinterGoogleInfo in{"user@example.com", "s3cret pass", ""}, out;
    std::memset(&out, 0x55, sizeof out);
    ASSERT_EQ(QORAPrinterGoogleInfoSet(&in), 0);
    EXPECT_EQ(qpt::read_file(kConf).find("s3cret"), std::string::npos) << qpt::read_file(kConf);
    ASSERT_EQ(QORAPrinterGoogleInfoGet(&out), 0);
    EXPECT_EQ(texts(out), texts(in));

    in = {"user@example.com", "", "tok-123"};
    ASSERT_EQ(QORAPrinterGoogleInfoSet(&in), 0);
    ASSERT_EQ(QORAPrinterGoogleInfoGet(&out), 0);
    EXPECT_EQ(texts(out), texts(in));
    const std::string token_cipher = section(kSection).at("refresh token");

    in = {"user@example.com", "pw2", "ignored"};
    ASSERT_EQ(QORAPrinterGoogleInfoSet(&in), 0);
    ASSERT_EQ(QORAPrinterGoogleInfoGet(&out), 0);
    EXPECT_EQ(texts(out), std::make_tuple("user@example.com", "pw2", ""));
    auto s = section(kSection);
    EXPECT_EQ(s.erase("google pass"), 1u);
    EXPECT_EQ(s, (decltype(s){{"google account", "user@example.com"}, {"note", "kept"},
                              {"refresh token", token_cipher}}));
    const std::string text = qpt::read_file(kConf);
    EXPECT_EQ(text.compare(0, before.size(), before), 0);
    EXPECT_TRUE(text.find("tok-123") == std::string::npos && text.find("pw2") == std::string::npos) << text;
}

// Records that cannot be stored fail with one error line each, a missing
// record quietly; none touches the file.
TEST_F(Cloud, RejectedRecordsLeaveTheFileAlone) {
    const std::string before = "[p]\n\tproducer = ACME\n";
    qpt::write_file(kConf, before);
    const PrinterGoogleInfo no_account{"", "pw", ""}, no_secret{"acct", "", ""};
    qpt::LogCapture log;
    EXPECT_EQ(QORAPrinterGoogleInfoSet(&no_account), -1);
    EXPECT_EQ(log.count(3, "google account can't be empty"), 1u) << log.dump();
    // An empty secret is refused by the cipher or comes out empty.
    EXPECT_EQ(QORAPrinterGoogleInfoSet(&no_secret), -1);
    EXPECT_EQ(log.count(3, "encrypt failed") + log.count(3, "refresh token can't be empty"), 1u) << log.dump();
    EXPECT_EQ(log.lines().size(), 2u) << log.dump();

    log.reset();
    EXPECT_EQ(QORAPrinterGoogleInfoSet(nullptr), -1);
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
    EXPECT_STREQ(QLIBCErrorGetFile(), "printer_google_info_set.cpp");
    EXPECT_EQ(QORAPrinterGoogleInfoGet(nullptr), -1);
    EXPECT_EQ(log.lines().size(), 0u) << log.dump();
    EXPECT_EQ(qpt::read_file(kConf), before);
}

TEST_F(Cloud, GetWithoutAccountClearsTheRecordQuietly) {
    for (const char *conf : {"", "[p]\n\tproducer = x\n", "[Google Cloud Print]\n\tgoogle pass = abc\n"}) {
        if (*conf) qpt::write_file(kConf, conf);
        PrinterGoogleInfo out;
        std::memset(&out, 0x5a, sizeof out);
        conft::mark_slot();
        qpt::LogCapture log;
        EXPECT_EQ(QORAPrinterGoogleInfoGet(&out), -1) << conf;
        EXPECT_EQ(std::string(reinterpret_cast<char *>(&out), sizeof out), std::string(sizeof out, '\0'));
        EXPECT_EQ(log.lines().size(), 0u) << log.dump();
        // Without a file the core library's failed read sets the slot itself.
        EXPECT_TRUE(!*conf || conft::slot_is_marked());
    }
}

TEST_F(Cloud, StoredValuesThatCannotBeUsed) {
    PrinterGoogleInfo in{"acct", "", "tok"}, out{};
    ASSERT_EQ(QORAPrinterGoogleInfoSet(&in), 0);
    in = {"acct", "pw", ""};
    ASSERT_EQ(QORAPrinterGoogleInfoSet(&in), 0);
    // An account longer than the record holds is cut to 254 characters.
    const std::string long_account(300, 'a'), cut = long_account.substr(0, 254);
    ASSERT_GE(QLIBCFileSetSectionValue(kConf, kSection, "google account", long_account.c_str()), 0);
    ASSERT_EQ(QORAPrinterGoogleInfoGet(&out), 0);
    EXPECT_EQ(texts(out), std::make_tuple(cut, "pw", ""));

    // A damaged password fails even though a good token is stored.
    ASSERT_GE(QLIBCFileSetSectionValue(kConf, kSection, "google pass", "not-a-cipher-text"), 0);
    qpt::LogCapture log;
    EXPECT_EQ(QORAPrinterGoogleInfoGet(&out), -1);
    EXPECT_EQ(log.count(3, "decrypt failed"), 1u) << log.dump();
    EXPECT_TRUE(out.szAccount == cut && out.szRefreshToken[0] == '\0');

    qpt::write_file(kConf, "[Google Cloud Print]\n\tgoogle account = lonely\n");
    log.reset();
    EXPECT_EQ(QORAPrinterGoogleInfoGet(&out), -1);
    EXPECT_STREQ(out.szAccount, "lonely");  // and no secret at all
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u) << log.dump();
    const std::regex want("printer_google_info_get\\.cpp:[0-9]+ Can't get password and refresh_token");
    EXPECT_TRUE(lines[0].severity == 3 && std::regex_match(lines[0].text, want)) << lines[0].text;
}

}  // namespace
