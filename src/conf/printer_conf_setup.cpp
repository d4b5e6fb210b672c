// QORAPrinterConfSetup: writes a USB printer's section of printer.conf from
// a PrinterConf record.
//
// The section is read first and only the record's non-empty fields replace
// what it holds, so keys written by others ("cups printer name", settings the
// administration back end added) survive.  The read happens before the
// configuration lock is taken: two writers of one section can each lose the
// other's keys, the last write wins.  Writers of different sections never
// lose each other's work, because the core library rewrites the file under
// its own per-file lock.
#include <string>

#include "conf/conf_text.hpp"
#include "conf_store.hpp"
#include "frame.hpp"
#include "owners.hpp"
#include "paths.hpp"

namespace {

// One field of the record and the key it is stored under, in the order the
// keys are put into the section (the core library keeps that order).
struct Entry {
    const char *key;
    std::string value;
    bool forced;  // stored even when empty if the caller forces it
};

// Puts the record's fields into the hash.  -1 when the hash cannot take one.
int put_fields(qp::Hash &hash, const PrinterConf &c, bool force) {
    const Entry entries[] = {
        {"producer", qp::field_text(c.szProducer), false},
        {"product name", qp::field_text(c.szProductName), false},
        {"mode", qp::field_text(c.szMode), false},
        {"autolock timer", qp::field_text(c.szAutoLockTimer), true},
        {"manuallock timer", qp::field_text(c.szManualLockTimer), true},
        {"enable airprint", qp::field_text(c.szEnableAirprint), false},
        {"enable google cloud print", qp::field_text(c.szEnableGoogleCloudPrint), false},
        {"driver", qp::field_text(c.szDriver), true},
        {"driver brand", qp::field_text(c.szDriverBrand), true},
        {"usblp string id", qp::field_text(c.szUsblpStringId), false},
        {"fit to page", qp::field_text(c.szFitToPage), false},
    };
    for (const Entry &e : entries) {
        if (e.value.empty() && !(force && e.forced)) continue;
        if (::QLIBCSzHashSetValue(hash.addr(), e.key, e.value.c_str()) < 0) {
            QP_LOG_ERR("QLIBCSzHashSetValue failed.(0x%04X), key=%s", ::QLIBCErrGet(), e.key);
            return -1;
        }
    }
    return 0;
}

}  // namespace

QP_EXPORT int QORAPrinterConfSetup(const PrinterConf *pConf, int bForce) {
    QP_CHECK_QUIET(-1, pConf != nullptr);
    return QP_GUARD(-1, {
        const std::string section = qp::field_text(pConf->szPrinterId);

        qp::Hash hash(512);
        if (!hash) {
            QP_SET_ERR(ERR_OUT_OF_MEMORY);
            return -1;
        }
        // No file or no section yet: the hash stays empty and the section is
        // created below.
        ::QLIBCFileGetSection(qp::path::kPrinterConf, section.c_str(), hash.addr());

        if (put_fields(hash, *pConf, bForce != 0) < 0) return -1;

        const qp::ConfLock lock(::QORAPrinterPrinterConfLock());
        if (!lock) {
            QP_SET_ERR(ERR_LOCK_FAILED);
            return -1;
        }
        return QP_STORE_SECTION(section.c_str(), hash.get());
    });
}
