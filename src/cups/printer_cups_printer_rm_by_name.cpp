// QORAPrinterCupsRmByName: delete a queue, and with "usbprinter1" its twin.
//
// lpadmin exits 1 for a queue that does not exist; that counts as removed.
// Only a run that could not happen at all (negative) is a failure.
#include <string.h>

#include "frame.hpp"
#include "names.hpp"
#include "paths.hpp"

namespace {

int remove_queue(const char *szQueue) {
    if (QLIBCExec(qp::tool::kLpadmin, "-x", szQueue, NULL, NULL) < 0) {
        QP_LOG_ERR("Execute error, cmd=%s -x %s", qp::tool::kLpadmin, szQueue);
        return -1;
    }
    return 0;
}

}  // namespace

QP_EXPORT int QORAPrinterCupsRmByName(const char *szCupsPrinterName) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szCupsPrinterName) && QP_ARG(0 != szCupsPrinterName[0]) &&
                          QP_ARG(qp::name_ok(szCupsPrinterName, qp::kQueueMax)));
    return QP_GUARD(-1, {
        if (remove_queue(szCupsPrinterName) != 0) return -1;
        if (strcmp(szCupsPrinterName, "usbprinter1") == 0 && remove_queue("usbprinter") != 0) return -1;
        return 0;
    });
}
