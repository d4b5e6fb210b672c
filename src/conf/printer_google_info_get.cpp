// QORAPrinterGoogleInfoGet: reads the cloud print account from its section
// of printer.conf, deciphering the stored secret.
//
// The password is looked at first; a stored refresh token is returned only
// when no password is stored.  Plain text of a secret lives only in the
// caller's record: the working buffer is wiped before returning.
#include <string.h>

#include <cstring>

#include "conf/conf_text.hpp"
#include "frame.hpp"
#include "owners.hpp"
#include "paths.hpp"

namespace {

constexpr const char *kSection = "Google Cloud Print";
constexpr int kCryptBuf = 512;

// Deciphers the value stored under key into the field; false when it cannot
// (a value sealed under another key does not open).
template <std::size_t N>
bool decipher_into(const char *key, const char *stored, char (&field)[N]) {
    char plain[kCryptBuf] = {};
    if (::QLIBCCryptSzDecryptNamed(key, stored, plain, kCryptBuf) == 0) {
        ::explicit_bzero(plain, sizeof plain);
        return false;
    }
    qp::copy_cut(field, std::string_view(plain, ::strnlen(plain, sizeof plain)));
    ::explicit_bzero(plain, sizeof plain);
    return true;
}

}  // namespace

QP_EXPORT int QORAPrinterGoogleInfoGet(PrinterGoogleInfo *pInfo) {
    QP_CHECK_QUIET(-1, pInfo != nullptr);
    std::memset(pInfo, 0, sizeof *pInfo);

    qp::Hash hash(512);
    if (!hash) {
        QP_SET_ERR(ERR_OUT_OF_MEMORY);
        return -1;
    }
    ::QLIBCFileGetSection(qp::path::kPrinterConf, kSection, hash.addr());

    const char *account = hash.value("google account");
    if (account == nullptr) return -1;
    qp::copy_cut(pInfo->szAccount, account);

    if (const char *pass = hash.value("google pass")) {
        if (!decipher_into("google pass", pass, pInfo->szPassword)) {
            QP_LOG_ERR("decrypt failed");
            return -1;
        }
        return 0;
    }
    if (const char *token = hash.value("refresh token")) {
        if (!decipher_into("refresh token", token, pInfo->szRefreshToken)) {
            QP_LOG_ERR("decrypt failed");
            return -1;
        }
        return 0;
    }
    QP_LOG_ERR("Can't get password and refresh_token");
    return -1;
}
