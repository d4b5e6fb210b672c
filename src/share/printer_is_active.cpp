// QORAPrinterIsActive: whether the Samba "printers" share section is
// complete, which takes at least 8 entries: the 7 that the library writes
// itself are not enough, so only an administrator-completed share counts.
#include "frame.hpp"
#include "owners.hpp"
#include "paths.hpp"

QP_EXPORT int QORAPrinterIsActive(void) {
    return QP_GUARD(0, {
        constexpr int kMinEntries = 8;

        qp::Hash section(512);
        if (!section) {
            QP_SET_ERR(ERR_OUT_OF_MEMORY);
            return 0;
        }
        int n = QLIBCFileGetSection(qp::path::kSmbReserved, "printers", section.addr());
        if (n >= kMinEntries) return 1;
        if (n >= 1) QP_LOG_ERR("Section [Printers] should contain at least %d entries.[%d]", kMinEntries, n);
        return 0;
    });
}
