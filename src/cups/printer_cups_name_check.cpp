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
struct NameVisit {
    const char *printer_id;
    const char *queue;
    int &answer;
    bool operator()(const char *line) const {
        if (!strstr(line, queue)) return false;
        answer = strstr(line, printer_id) ? 1 : 2;
        return true;
    }
};

}  // namespace

int qp::cups::name_check_scan(FILE *pPipe, const char *szPrinterId, const char *szCupsPrinterName) {
    int answer = 0;
    return qp::read_listing(pPipe, NameVisit{szPrinterId, szCupsPrinterName, answer}) == qp::Listing::kFailed ? -1
                                                                                                              : answer;
}

QP_EXPORT int QORAPrinterCupsNameCheck(const char *szPrinterId, const char *szCupsPrinterName) {
    return QP_GUARD(-1, {
        QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szPrinterId) && QP_ARG(0 != szPrinterId[0]) &&
                              QP_ARG(((void *)0) != szCupsPrinterName) && QP_ARG(0 != szCupsPrinterName[0]));

        // A stopped scheduler has no queues; nothing is run.
        if (!QLIBServiceIsRunning("cupsd")) {
            QP_LOG_ERR("%s is not running.", "cupsd");
            return 0;
        }

        int answer = 0;
        if (qp::list_queues(NameVisit{szPrinterId, szCupsPrinterName, answer}) == qp::Listing::kFailed) {
            QP_SET_ERR(ERR_EXTERNAL_FAILED);
            return -1;
        }
        return answer;
    });
}
