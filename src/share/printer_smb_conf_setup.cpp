// QORAPrinterSmbConfSetup (internal): makes sure the Samba "printers" share
// section exists in the reserved share file.
//
// An existing section with any entry is never touched, whatever it holds.
// Two callers racing here cannot both append: the core library's section
// writer answers 0 (present, nothing written) once the header is there.
#include "frame.hpp"
#include "internal.hpp"
#include "owners.hpp"
#include "paths.hpp"

int QORAPrinterSmbConfSetup(void) {
    qp::Hash section(512);
    if (!section) {
        QP_SET_ERR(ERR_OUT_OF_MEMORY);
        return -1;
    }
    if (QLIBCFileGetSection(qp::path::kSmbReserved, "printers", section.addr()) >= 1) return 0;

    static constexpr const char *kEntries[][2] = {
        {"comment", "All Printers"}, {"path", "/var/services/printer"},
        {"browseable", "no"},        {"public", "yes"},
        {"guest ok", "yes"},         {"writable", "yes"},
        {"printable", "yes"},
    };
    for (const auto &entry : kEntries) {
        if (QLIBCSzHashSetValue(section.addr(), entry[0], entry[1]) < 0) {
            QP_SET_ERR(ERR_OUT_OF_MEMORY);
            return -1;
        }
    }

    if (QLIBCFileAddSection(qp::path::kSmbReserved, "printers", section.get(), qp::fmt::kSectionEntry) < 0) {
        QP_LOG_ERR("QLIBCFileAddSection failed." QP_CODE_FMT, QLIBCErrGet());
        return -1;
    }
    return 0;
}
