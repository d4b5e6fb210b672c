// QORAPrinterCupsNameCheck: does a queue of this name exist in the running
// scheduler, and is its device the printer's?
//
// The answer comes from "lpstat -v" ("device for usbprinter1: usb:/dev/usb/ID"),
// tested by substring only: the first line naming the queue decides.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "cups/cups_scan.hpp"
#include "frame.hpp"
#include "owners.hpp"
#include "qorasdk.h"

namespace qp::cups {

int name_check_scan(FILE *pPipe, const char *szPrinterId, const char *szCupsPrinterName) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != pPipe) && QP_ARG(((void *)0) != szPrinterId) &&
                          QP_ARG(NULL != szCupsPrinterName));
    const int saved_errno = errno;
    char line[1024];
    int answer = 0;
    for (;;) {
        errno = 0;
        if (!fgets(line, sizeof line, pPipe)) {
            answer = (errno == EINTR) ? -1 : 0;
            break;
        }
        QLIBCStrTrim(line, 0, 0);
        if (strstr(line, szCupsPrinterName)) {
            answer = strstr(line, szPrinterId) ? 1 : 2;
            break;
        }
    }
    errno = saved_errno;
    return answer;
}

}  // namespace qp::cups

QP_EXPORT int QORAPrinterCupsNameCheck(const char *szPrinterId, const char *szCupsPrinterName) {
    return QP_GUARD(-1, {
        QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szPrinterId) && QP_ARG(0 != szPrinterId[0]) &&
                              QP_ARG(((void *)0) != szCupsPrinterName) && QP_ARG(0 != szCupsPrinterName[0]));

        // A stopped scheduler has no queues; nothing is run.
        if (!QLIBServiceIsRunning("cupsd")) {
            QP_LOG_ERR("%s is not running.", "cupsd");
            return 0;
        }

        for (int attempt = 0; attempt < 3; ++attempt) {
            qp::Pipe pipe(QLIBCPopen("/usr/bin/lpstat", "r", "-v", (char *)NULL));
            if (!pipe) continue;  // could not start: no pause
            int answer = qp::cups::name_check_scan(pipe.get(), szPrinterId, szCupsPrinterName);
            int closed = pipe.close();
            if (answer >= 0 && closed >= 0) return answer;
            sleep(1);
        }
        QP_SET_ERR(ERR_EXTERNAL_FAILED);
        return -1;
    });
}
