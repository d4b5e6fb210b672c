// QORAPrinterCupsRm: remove a USB printer's queue, but only while the
// scheduler lists that queue on this printer's device.
#include "frame.hpp"
#include "names.hpp"

QP_EXPORT int QORAPrinterCupsRm(const char *szPrinterId) {
    QP_CHECK_QUIET(-1, szPrinterId && szPrinterId[0]);
    return QP_GUARD(-1, {
        char name[128] = {0};
        if (qp::stored_queue_name(szPrinterId, name, sizeof name) != 0) {
            QP_LOG_ERR("cannot find cups printer name, printer=%s", szPrinterId);
            return -1;
        }
        // 0 (no such queue, or cupsd down) and 2 (the name now serves another
        // device) both leave the queue alone.
        if (QORAPrinterCupsNameCheck(szPrinterId, name) != 1) {
            QP_LOG_ERR("cannot find cups printer name, printer=%s", szPrinterId);
            return -1;
        }
        return QORAPrinterCupsRmByName(name);
    });
}
