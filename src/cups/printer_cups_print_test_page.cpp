// QORAPrinterCupsPrintTestPage: print the scheduler's own test page.  The
// page is a shared file, so it is never submitted with "-r".
#include "frame.hpp"
#include "paths.hpp"

QP_EXPORT int QORAPrinterCupsPrintTestPage(const char *szPrinterId) {
    QP_CHECK_QUIET(-1, szPrinterId && szPrinterId[0]);
    return QP_GUARD(-1, {
        if (QORAPrinterCupsPrintFile(szPrinterId, qp::path::kTestPage, NULL, 0) != 0) {
            QP_LOG_ERR("cannot print test page, printer id=%s", szPrinterId);
            return -1;
        }
        return 0;
    });
}
