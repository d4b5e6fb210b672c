// QORAPrinterGoogleInfoSet: stores the cloud print account in its section of
// printer.conf, the password or the refresh token enciphered by the core
// library.
//
// A password wins over a token when both are given.  Storing a token drops a
// stored password (it would otherwise still be the one returned); storing a
// password keeps a stored token.
#include <string.h>

#include <string>

#include "conf/conf_text.hpp"
#include "conf_store.hpp"
#include "frame.hpp"
#include "owners.hpp"
#include "paths.hpp"

namespace {

constexpr const char *kSection = "Google Cloud Print";
constexpr int kCryptBuf = 512;

// Wipes a working buffer that held a secret, on every path.
struct Wiped {
    char buf[kCryptBuf] = {};
    ~Wiped() { ::explicit_bzero(buf, sizeof buf); }
};

// Seals a secret field under its key name into the hash; -1 (logged) when it
// cannot be sealed or stored.
template <size_t N>
int seal(qp::Hash &hash, const char *key, const char (&field)[N], const char *empty_message) {
    Wiped plain, sealed;
    qp::copy_cut(plain.buf, qp::field_view(field));
    if (::QLIBCCryptSzEncryptNamed(key, plain.buf, sealed.buf, kCryptBuf) == 0) {
        QP_LOG_ERR("encrypt failed");
        return -1;
    }
    if (sealed.buf[0] == '\0' || ::QLIBCSzHashSetValue(hash.addr(), key, sealed.buf) < 0) {
        QP_LOG_ERR("%s", empty_message);
        return -1;
    }
    return 0;
}

}  // namespace

QP_EXPORT int QORAPrinterGoogleInfoSet(const PrinterGoogleInfo *pInfo) {
    QP_CHECK_QUIET(-1, pInfo != nullptr);
    return QP_GUARD(-1, {
        qp::Hash hash(512);
        if (!hash) {
            QP_SET_ERR(ERR_OUT_OF_MEMORY);
            return -1;
        }
        ::QLIBCFileGetSection(qp::path::kPrinterConf, kSection, hash.addr());

        const std::string account = qp::field_text(pInfo->szAccount);
        if (account.empty() || ::QLIBCSzHashSetValue(hash.addr(), "google account", account.c_str()) < 0) {
            QP_LOG_ERR("google account can't be empty");
            return -1;
        }

        // The password when there is one, else the refresh token (which
        // replaces a stored password).
        if (!qp::field_view(pInfo->szPassword).empty()) {
            if (seal(hash, "google pass", pInfo->szPassword, "password can't be empty") < 0) return -1;
        } else {
            if (seal(hash, "refresh token", pInfo->szRefreshToken, "refresh token can't be empty") < 0) return -1;
            ::QLIBCSzHashRemoveKey(hash.get(), "google pass");
        }

        const qp::ConfLock lock(::QORAPrinterPrinterConfLock());
        if (!lock) {
            QP_SET_ERR(ERR_LOCK_FAILED);
            return -1;
        }
        return QP_STORE_SECTION(kSection, hash.get());
    });
}
