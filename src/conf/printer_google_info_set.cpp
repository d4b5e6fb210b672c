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

        Wiped plain, sealed;
        qp::copy_cut(plain.buf, qp::field_view(pInfo->szPassword));
        if (plain.buf[0] != '\0') {
            if (::QLIBCCryptSzEncryptNamed("google pass", plain.buf, sealed.buf, kCryptBuf) == 0) {
                QP_LOG_ERR("encrypt failed");
                return -1;
            }
            if (sealed.buf[0] == '\0' || ::QLIBCSzHashSetValue(hash.addr(), "google pass", sealed.buf) < 0) {
                QP_LOG_ERR("password can't be empty");
                return -1;
            }
        } else {
            qp::copy_cut(plain.buf, qp::field_view(pInfo->szRefreshToken));
            if (::QLIBCCryptSzEncryptNamed("refresh token", plain.buf, sealed.buf, kCryptBuf) == 0) {
                QP_LOG_ERR("encrypt failed");
                return -1;
            }
            if (sealed.buf[0] == '\0' || ::QLIBCSzHashSetValue(hash.addr(), "refresh token", sealed.buf) < 0) {
                QP_LOG_ERR("refresh token can't be empty");
                return -1;
            }
            ::QLIBCSzHashRemoveKey(hash.get(), "google pass");
        }

        int fd = ::QORAPrinterPrinterConfLock();
        if (fd < 0) {
            QP_SET_ERR(ERR_LOCK_FAILED);
            return -1;
        }
        int result = 0;
        int rc = ::QLIBCFileAddSection(qp::path::kPrinterConf, kSection, hash.get(), qp::path::kSectionEntryFmt);
        if (rc < 0) {
            QP_LOG_ERR("QLIBCFileAddSection failed." QP_CODE_FMT, ::QLIBCErrGet());
            result = rc;
        } else if (rc == 0) {
            if (::QLIBCFileSetSection(qp::path::kPrinterConf, kSection, kSection, hash.get(),
                                      qp::path::kSectionEntryFmt) < 1) {
                QP_LOG_ERR("QLIBCFileSetSection failed." QP_CODE_FMT, ::QLIBCErrGet());
                result = -1;
            }
        }
        ::QORAPrinterPrinterConfUnlock(fd);
        return result;
    });
}
