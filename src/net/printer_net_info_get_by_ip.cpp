// QORAPrinterNetInfoGetByIP: identifies the printer at an address over SNMP:
// backend and queue from its device URI, then its device ID string and the
// maker and model read from it.  Two walks, one after the other; it writes
// no file.
#include <string.h>

#include "frame.hpp"

QP_EXPORT int QORAPrinterNetInfoGetByIP(const char *szIP, PrinterNetInfo *pNPInfo) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szIP) && QP_ARG(NULL != pNPInfo));
    return QP_GUARD(-1, {
        memset(pNPInfo, 0, sizeof *pNPInfo);

        const int backend = QORAPrinterNetGetStringBackend(szIP, pNPInfo->szBackend, sizeof pNPInfo->szBackend,
                                                           pNPInfo->szQName, sizeof pNPInfo->szQName);
        if (backend == -1) {
            QP_LOG_ERR("Failed to get network printer string Backend." QP_LOWER_FMT, QP_LOWER_ARGS);
            return -1;
        }

        const int string_id = QORAPrinterNetGetStringId(szIP, pNPInfo->szStringId, sizeof pNPInfo->szStringId);
        if (string_id < 0) {
            QP_LOG_ERR("Failed to get network printer string ID." QP_LOWER_FMT, QP_LOWER_ARGS);
            return -1;
        }

        if (string_id == 0) {
            if (QORAPrinterConfStringIdGetVendor(pNPInfo->szStringId, pNPInfo->szVendor, sizeof pNPInfo->szVendor) <
                0) {
                QP_LOG_ERR("Failed to get network printer brand from string ID." QP_LOWER_FMT, QP_LOWER_ARGS);
                return -1;
            }
            if (QORAPrinterConfStringIdGetModel(pNPInfo->szStringId, pNPInfo->szModel, sizeof pNPInfo->szModel) < 0) {
                QP_LOG_ERR("Failed to get network printer model from string ID." QP_LOWER_FMT, QP_LOWER_ARGS);
                return -1;
            }
        }
        return (backend == 1 || string_id == 1) ? 1 : 0;
    });
}
