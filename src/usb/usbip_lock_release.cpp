// QORAPrinterUsbipLockRelease: asks the USB/IP tool to release a shared
// printer's lock.  The command text is composed only for the log line; the
// tool itself gets its arguments one by one.
#include <stdio.h>

#include "frame.hpp"
#include "names.hpp"
#include "paths.hpp"

QP_EXPORT int QORAPrinterUsbipLockRelease(const char *szPrinterId) {
    QP_CHECK_QUIET(-1, szPrinterId != nullptr && szPrinterId[0] != '\0');
    QP_CHECK_ARGS(-1, QP_ARG(qp::name_ok(szPrinterId, qp::kIdMax)));
    return QP_GUARD(-1, {
        char cmd[512];
        snprintf(cmd, sizeof(cmd), "/usr/bin/bind_driver -p %s -0 %d -n %s", szPrinterId, 0, "USBIP");
        if (QLIBCExecl(qp::tool::kBindDriver, 0xBB, "-p", szPrinterId, "-0", "0", "-n", "USBIP",
                       static_cast<const char *>(nullptr)) == 0)
            return 0;
        QP_LOG_ERR("release usb ap lock failed, cmd=%s", cmd);
        return -1;
    });
}
