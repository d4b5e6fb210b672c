// QORAPrinterCupsNameCheck: does a queue of this name exist in the running
// scheduler, and is its device the printer's?
//
// The answer comes from "lpstat -v" ("device for usbprinter1: usb:/dev/usb/ID"),
// tested by substring only: the first line naming the queue decides.
#include <string.h>

#include "cups/cups_scan.hpp"
#include "frame.hpp"
#include "qorasdk.h"
#include "queue_listing.hpp"

namespace {

// The first line naming the queue decides: 1 when it also names the
// printer, 2 when it names another device.
auto first_line(const char *printer_id, const char *queue) {
    return qp::first_line_holds([queue](const char *line) { return strstr(line, queue) != nullptr; }, printer_id);
}

}  // namespace

int qp::cups::name_check_scan(FILE *pPipe, const char *szPrinterId, const char *szCupsPrinterName) {
    auto visit = first_line(szPrinterId, szCupsPrinterName);
    return qp::answer_after(qp::read_listing(pPipe, visit), visit);
}

QP_EXPORT int QORAPrinterCupsNameCheck(const char *szPrinterId, const char *szCupsPrinterName) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szPrinterId) && QP_ARG(0 != szPrinterId[0]) &&
                          QP_ARG(((void *)0) != szCupsPrinterName) && QP_ARG(0 != szCupsPrinterName[0]));
    return QP_GUARD(-1, {
        // A stopped scheduler has no queues; nothing is run.
        if (!QLIBServiceIsRunning("cupsd")) {
            QP_LOG_ERR("%s is not running.", "cupsd");
            return 0;
        }

        auto visit = first_line(szPrinterId, szCupsPrinterName);
        const int answer = qp::answer_after(qp::list_queues(visit), visit);
        if (answer < 0) QP_SET_ERR(ERR_EXTERNAL_FAILED);
        return answer;
    });
}
