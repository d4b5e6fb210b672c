// QORAPrinterCupsNameGet: the CUPS queue name stored in a printer's section
// of printer.conf under "cups printer name".
#include "frame.hpp"
#include "paths.hpp"

QP_EXPORT int QORAPrinterCupsNameGet(const char *szPrinterId, char *szBuf, int cbBuf) {
    QP_CHECK_QUIET(-1, szBuf != nullptr && cbBuf > 0 && szPrinterId != nullptr);
    return QP_GUARD(-1, {
        // A missing section and a missing key look the same to the caller: no
        // queue to name.  An empty stored name is no queue either.
        int rc = ::QLIBCFileGetSectionValue(qp::path::kPrinterConf, szPrinterId, "cups printer name", szBuf, cbBuf);
        if (rc < 0 || szBuf[0] == '\0') {
            QP_LOG_ERR("get cups printer name failed, printer=%s", szPrinterId);
            return -1;
        }
        return 0;
    });
}
