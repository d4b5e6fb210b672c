// QORAPrinterUsbipEject: asks the USB/IP tool to eject a shared printer.
#include "frame.hpp"
#include "names.hpp"

QP_EXPORT int QORAPrinterUsbipEject(const char *szPrinterId) {
    QP_CHECK_QUIET(-1, szPrinterId != nullptr && szPrinterId[0] != '\0');
    QP_CHECK_ARGS(-1, QP_ARG(qp::name_ok(szPrinterId, qp::kIdMax)));
    if (QLIBCExec("/usr/bin/bind_driver", "-z", szPrinterId, nullptr, nullptr) != 0) {
        QP_LOG_ERR("release usb ap lock failed, printerId=%s", szPrinterId);
        return -1;
    }
    return 0;
}
