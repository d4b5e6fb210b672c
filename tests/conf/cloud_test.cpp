// The cloud print account in printer.conf: which secret is stored, read back
// and dropped, and that secrets never reach the file in plain text.
#include <cstring>
#include <tuple>

#include "conf_test_util.hpp"

namespace {

using namespace conft;

constexpr const char *kSection = "Google Cloud Print";

using Texts = std::tuple<std::string, std::string, std::string>;
Texts texts(const PrinterGoogleInfo &i) { return {i.szAccount, i.szPassword, i.szRefreshToken}; }

// Stores a record and answers what a read gives back.
Texts stored(PrinterGoogleInfo in) {
    PrinterGoogleInfo out;
    std::memset(&out, 0x55, sizeof out);
    EXPECT_EQ(QORAPrinterGoogleInfoSet(&in), 0);
    EXPECT_EQ(QORAPrinterGoogleInfoGet(&out), 0);
    return texts(out);
}

class Cloud : public ConfTest {};

// The password is stored enciphered; a token alone replaces it; given both,
// the password wins and the stored token stays, shadowed.  Other keys and
// sections keep their bytes.  Records that cannot be stored fail with one
// error line each, a missing record quietly, and leave the file alone.
TEST_F(Cloud, WhichSecretIsStoredAndRejected) {
    const std::string before = "[p]\n\tproducer = ACME\n", acct = "user@example.com";
    qpt::write_file(kConf, before + "[" + kSection + "]\n\tnote = kept\n");
    EXPECT_EQ(stored({"user@example.com", "s3cret pass", ""}), Texts(acct, "s3cret pass", ""));
    EXPECT_EQ(stored({"user@example.com", "", "tok-123"}), Texts(acct, "", "tok-123"));
    const std::string token_cipher = section(kSection).at("refresh token");
    EXPECT_EQ(stored({"user@example.com", "pw2", "ignored"}), Texts(acct, "pw2", ""));
    auto s = section(kSection);
    EXPECT_EQ(s.erase("google pass"), 1u);
    EXPECT_EQ(s, (decltype(s){{"google account", acct}, {"note", "kept"}, {"refresh token", token_cipher}}));
    const std::string text = qpt::read_file(kConf);
    EXPECT_EQ(text.compare(0, before.size(), before), 0);
    for (const char *secret : {"s3cret", "tok-123", "pw2"}) EXPECT_EQ(text.find(secret), std::string::npos) << text;

    qpt::LogCapture log;
    for (PrinterGoogleInfo bad : {PrinterGoogleInfo{"", "pw", ""}, {"acct", "", ""}})
        EXPECT_EQ(QORAPrinterGoogleInfoSet(&bad), -1) << bad.szAccount;
    EXPECT_EQ(QORAPrinterGoogleInfoSet(nullptr), -1);
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
    EXPECT_TRUE(log.lines().size() == 2 && log.count(3, "printer_google_info_set.cpp") == 2) << log.dump();
    EXPECT_EQ(qpt::read_file(kConf), text);
}

// Without an account a read clears the record quietly, the error slot left
// alone; a stored account is cut to the record; a damaged password fails even
// with a good token stored, and no secret at all fails, each with its line.
TEST_F(Cloud, StoredValuesThatCannotBeUsed) {
    PrinterGoogleInfo out;
    qpt::write_file(kConf, "[Google Cloud Print]\n\tgoogle pass = abc\n");
    std::memset(&out, 0x5a, sizeof out);
    mark_slot();
    qpt::LogCapture log;
    EXPECT_EQ(QORAPrinterGoogleInfoGet(&out), -1);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(&out), sizeof out), std::string(sizeof out, '\0'));
    EXPECT_TRUE(slot_is_marked());

    stored({"acct", "", "tok"}), stored({"acct", "pw", ""});
    const std::string long_account(300, 'a'), cut = long_account.substr(0, 254);
    ASSERT_GE(QLIBCFileSetSectionValue(kConf, kSection, "google account", long_account.c_str()), 0);
    ASSERT_EQ(QORAPrinterGoogleInfoGet(&out), 0);
    EXPECT_EQ(texts(out), Texts(cut, "pw", ""));
    EXPECT_EQ(log.lines().size(), 0u) << log.dump();

    ASSERT_GE(QLIBCFileSetSectionValue(kConf, kSection, "google pass", "not-a-cipher-text"), 0);
    EXPECT_EQ(QORAPrinterGoogleInfoGet(&out), -1);
    EXPECT_EQ(log.count(3, "decrypt failed"), 1u) << log.dump();
    EXPECT_TRUE(out.szAccount == cut && out.szRefreshToken[0] == '\0');
    qpt::write_file(kConf, "[Google Cloud Print]\n\tgoogle account = lonely\n");
    EXPECT_EQ(QORAPrinterGoogleInfoGet(&out), -1);
    EXPECT_EQ(log.count(3, "Can't get password and refresh_token"), 1u) << log.dump();
    EXPECT_EQ(log.lines().size(), 2u) << log.dump();
}

}  // namespace
