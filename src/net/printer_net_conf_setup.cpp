// QORAPrinterNetConfSetup: stores a network printer's settings in its section
// of printer.conf (named by the record's printer ID), merging them into what
// the section already holds: keys the record leaves empty keep their values,
// keys written by others survive.
#include <string.h>

#include <string>

#include "conf_store.hpp"
#include "frame.hpp"
#include "owners.hpp"
#include "paths.hpp"

namespace {

// A record field as text, never read past the field even when the caller
// left it unterminated.
template <size_t N>
std::string field(const char (&f)[N]) {
    return std::string(f, strnlen(f, N));
}

// The backend decides whether "QName" is written: lpd and ipp only with a
// queue name, socket and bjnp always (an empty one clears a stored name),
// anything else never.
enum class QNameRule { kWhenSet, kAlways, kNever };

QNameRule qname_rule(const std::string &backend) {
    if (backend == "lpd" || backend == "ipp") return QNameRule::kWhenSet;
    if (backend == "socket" || backend == "bjnp") return QNameRule::kAlways;
    return QNameRule::kNever;
}

}  // namespace

QP_EXPORT int QORAPrinterNetConfSetup(const PrinterNetConf *pNPConf, int bForce) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != pNPConf));
    return QP_GUARD(-1, {
        qp::Hash hash(512);
        if (!hash) {
            QP_SET_ERR(ERR_OUT_OF_MEMORY);
            return -1;
        }

        const std::string backend = field(pNPConf->szBackend);
        const QNameRule rule = qname_rule(backend);
        struct Entry {
            const char *key;
            std::string value;
            bool write;
        };
        // An entry is written when its field is not empty, or always when
        // forced; an entry not written keeps what the section holds.
        auto entry = [](const char *key, std::string value, bool force = false) {
            const bool write = force || !value.empty();
            return Entry{key, std::move(value), write};
        };
        const Entry entries[] = {
            entry("IP", field(pNPConf->szIP)),
            entry("cups printer name", field(pNPConf->szCupsPrinterName)),
            entry("Backend", backend),
            rule == QNameRule::kNever ? Entry{"QName", std::string(), false}
                                      : entry("QName", field(pNPConf->szQName), rule == QNameRule::kAlways),
            entry("Brand", field(pNPConf->szBrand)),
            entry("Model", field(pNPConf->szModel)),
            entry("enable airprint", field(pNPConf->szEnableAirprint)),
            entry("enable google cloud print", field(pNPConf->szEnableGoogleCloudPrint)),
            entry("driver brand", field(pNPConf->szDriverBrand), bForce != 0),
            entry("driver", field(pNPConf->szDriver), bForce != 0),
            entry("string id", field(pNPConf->szStringId)),
            entry("fit to page", field(pNPConf->szFitToPage)),
        };
        const std::string section = field(pNPConf->szPrinterId);

        // The section is read under the lock as well as written, so that two
        // writers of one printer cannot each drop the other's keys.
        const qp::ConfLock lock(QORAPrinterPrinterConfLock());
        if (!lock) {
            QP_SET_ERR(ERR_LOCK_FAILED);
            return -1;
        }
        QLIBCFileGetSection(qp::path::kPrinterConf, section.c_str(), hash.addr());

        for (const Entry &e : entries) {
            if (!e.write) continue;
            if (QLIBCSzHashSetValue(hash.addr(), e.key, e.value.c_str()) < 0) {
                // A write without this key would silently keep a stale value.
                QP_SET_ERR(ERR_OUT_OF_MEMORY);
                return -1;
            }
        }

        return QP_STORE_SECTION(section.c_str(), hash.get()) < 0 ? -1 : 0;
    });
}
