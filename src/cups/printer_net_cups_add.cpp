// QORAPrinterNetCupsAdd: turn a network printer's record into one queue,
// "BACKEND://IP/QNAME", left as lpadmin makes it (enabled, accepting).
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "cups/queue_setup.hpp"
#include "frame.hpp"
#include "internal.hpp"
#include "names.hpp"
#include "paths.hpp"
#include "qorasdk.h"

namespace {

// The record's fields are fixed-width; a caller's record that fills one to
// the brim without a NUL is read only up to its width.
template <size_t N>
int width(const char (&field)[N]) {
    return static_cast<int>(strnlen(field, N));
}

// A field that ends within its width and holds a plain name (names.hpp).
template <size_t N>
bool fits_name(const char (&field)[N]) {
    return strnlen(field, N) < N && qp::name_ok(field, N - 1);
}

}  // namespace

QP_EXPORT int QORAPrinterNetCupsAdd(const PrinterNetConf *pNPConf, const char *szPpdFile) {
    // The queue name and the URI become lpadmin arguments and the printer
    // ID names the kept PPD copy: plain names that fit their fields only.
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != pNPConf) &&
                          QP_ARG(!pNPConf->szPrinterId[0] || fits_name(pNPConf->szPrinterId)) &&
                          QP_ARG(!pNPConf->szCupsPrinterName[0] || fits_name(pNPConf->szCupsPrinterName)) &&
                          QP_ARG(pNPConf->szBackend[0] != '-'));
    return QP_GUARD(-1, {
        if (!QLIBServiceIsRunning("cupsd") && QLIBServiceStart("cupsd", 0) < 0) {
            QP_LOG_ERR("start %s failed. " QP_LOWER_FMT, "cupsd", QP_LOWER_ARGS);
            return -1;
        }

        char printer_id[sizeof pNPConf->szPrinterId + 1];
        snprintf(printer_id, sizeof printer_id, "%.*s", width(pNPConf->szPrinterId), pNPConf->szPrinterId);

        char queue[128];
        snprintf(queue, sizeof queue, "%.*s", width(pNPConf->szCupsPrinterName), pNPConf->szCupsPrinterName);
        if (!queue[0]) {
            QP_LOG_ERR("cannot find cups printer name, printer=%s", printer_id);
            return -1;
        }

        std::string ppd;
        if (!QP_CHOOSE_PPD(szPpdFile, printer_id, ppd)) return -1;

        char uri[4096];
        snprintf(uri, sizeof uri, "%.*s://%.*s/%.*s", width(pNPConf->szBackend), pNPConf->szBackend,
                 width(pNPConf->szIP), pNPConf->szIP, width(pNPConf->szQName), pNPConf->szQName);

        if (QP_CREATE_QUEUE(queue, uri, ppd) != 0) return -1;
        QP_LOG_ERR("add cups network printer=%s, ok", queue);
        return 0;
    });
}
