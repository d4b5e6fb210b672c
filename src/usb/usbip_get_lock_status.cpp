// QORAPrinterUsbipGetLockStatus: a shared printer's lock status from its
// USB/IP status file.  A printer without a readable status reads as "Free".
#include <stdio.h>

#include "frame.hpp"
#include "paths.hpp"

QP_EXPORT int QORAPrinterUsbipGetLockStatus(const char *szPrinterId, char *szBuf, int cbBuf) {
    QP_CHECK_QUIET(-1, szBuf != nullptr && cbBuf > 0 && szPrinterId != nullptr);

    char szPath[4096];
    snprintf(szPath, sizeof(szPath), qp::path::kUsbipStatusFmt, szPrinterId);
    if (QLIBCFileGetKeyValue(szPath, "LOCK", szBuf, cbBuf, 0) < 0)
        snprintf(szBuf, static_cast<size_t>(cbBuf), "%s", "Free");
    return 0;
}
