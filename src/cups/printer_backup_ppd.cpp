// printer_backup_ppd: keep a copy of the PPD file a queue was created with,
// named after the printer, so a later creation without one finds it again.
// The printer ID becomes the file name: one that is not a plain name (see
// names.hpp) is refused, and the source is passed to cp after "--".
#include <string>

#include "frame.hpp"
#include "internal.hpp"
#include "names.hpp"
#include "paths.hpp"

int printer_backup_ppd(const char *szPpdFile, const char *szPrinterId) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szPpdFile) && QP_ARG(0 != szPpdFile[0]) &&
                          QP_ARG(((void *)0) != szPrinterId) && QP_ARG(0 != szPrinterId[0]) &&
                          QP_ARG(qp::name_ok(szPrinterId, qp::kIdMax)));
    return QP_GUARD(-1, {
        if (QLIBCExec(qp::tool::kMkdir, "-p", qp::path::kCupsPpdDir, NULL, NULL) != 0) {
            QP_LOG_ERR("mkdir -p %s failed", qp::path::kCupsPpdDir);
            QP_SET_ERR(ERR_EXTERNAL_FAILED);
            return -1;
        }

        const std::string dest = std::string(qp::path::kCupsPpdDir) + szPrinterId + ".ppd";
        if (QLIBCExec(qp::tool::kCp, "-f", "--", szPpdFile, dest.c_str()) != 0) {
            QP_LOG_ERR("cp -f %s %s failed", szPpdFile, dest.c_str());
            QP_SET_ERR(ERR_EXTERNAL_FAILED);
            return -1;
        }
        return 0;
    });
}
