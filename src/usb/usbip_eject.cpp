// QORAPrinterUsbipEject: asks the USB/IP tool to eject a shared printer.
#include "frame.hpp"
#include "names.hpp"
#include "paths.hpp"

QP_EXPORT int QORAPrinterUsbipEject(const char *szPrinterId) {
    QP_CHECK_QUIET(-1, szPrinterId != nullptr && szPrinterId[0] != '\0');
    QP_CHECK_ARGS(-1, QP_ARG(qp::name_ok(szPrinterId, qp::kIdMax)));
    return QP_GUARD(-1, {
        if (QLIBCExec(qp::tool::kBindDriver, "-z", szPrinterId, nullptr, nullptr) != 0) {
            QP_LOG_ERR("release usb ap lock failed, printerId=%s", szPrinterId);
            return -1;
        }
        return 0;
    });
}
