// QORAPrinterCupsNameCheck: does a queue of this name exist in the running
// scheduler, and is its device the printer's?
//
// The answer comes from "lpstat -v" ("device for usbprinter1: usb:/dev/usb/ID"),
// tested by substring only: the first line naming the queue decides.
#include <string.h>

#include "frame.hpp"
#include "qorasdk.h"
#include "queue_listing.hpp"

QP_EXPORT int QORAPrinterCupsNameCheck(const char *szPrinterId, const char *szCupsPrinterName) {
    return QP_GUARD(-1, {
        QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szPrinterId) && QP_ARG(0 != szPrinterId[0]) &&
                              QP_ARG(((void *)0) != szCupsPrinterName) && QP_ARG(0 != szCupsPrinterName[0]));

        // A stopped scheduler has no queues; nothing is run.
        if (!QLIBServiceIsRunning("cupsd")) {
            QP_LOG_ERR("%s is not running.", "cupsd");
            return 0;
        }

        // The first line naming the queue decides: 1 when it also names the
        // printer, 2 when it names another device.
        int answer = 0;
        const qp::Listing listing = qp::list_queues([&](const char *line) {
            if (!strstr(line, szCupsPrinterName)) return false;
            answer = strstr(line, szPrinterId) ? 1 : 2;
            return true;
        });
        if (listing == qp::Listing::kFailed) {
            QP_SET_ERR(ERR_EXTERNAL_FAILED);
            return -1;
        }
        return answer;
    });
}
