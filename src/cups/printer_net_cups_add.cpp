// QORAPrinterNetCupsAdd: turn a network printer's record into one queue,
// "BACKEND://IP/QNAME", left as lpadmin makes it (enabled, accepting).
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "cups/cups_argv.hpp"
#include "frame.hpp"
#include "internal.hpp"
#include "names.hpp"
#include "paths.hpp"
#include "qorasdk.h"

namespace {

constexpr const char *kLpadmin = "/usr/bin/lpadmin";

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
    return QP_GUARD(-1, {
        // The queue name and the URI become lpadmin arguments and the printer
        // ID names the kept PPD copy: plain names that fit their fields only.
        QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != pNPConf) &&
                              QP_ARG(!pNPConf->szPrinterId[0] || fits_name(pNPConf->szPrinterId)) &&
                              QP_ARG(!pNPConf->szCupsPrinterName[0] || fits_name(pNPConf->szCupsPrinterName)) &&
                              QP_ARG(pNPConf->szBackend[0] != '-'));

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

        const char *ppd = nullptr;
        std::string kept;
        if (szPpdFile && szPpdFile[0]) {
            struct stat st;
            if (stat(szPpdFile, &st) != 0) {
                QP_LOG_ERR("add cups printer, ppd file does not exist,path=%s", szPpdFile);
                return -1;
            }
            if (printer_backup_ppd(szPpdFile, printer_id) != 0)
                QP_LOG_ERR("Failed to backup ppd file: %s" QP_LOWER_FMT, szPpdFile, QP_LOWER_ARGS);
            ppd = szPpdFile;
        } else {
            kept = std::string(qp::path::kCupsPpdDir) + printer_id + ".ppd";
            if (QLIBCFileExist(kept.c_str())) ppd = kept.c_str();
        }

        char uri[4096];
        snprintf(uri, sizeof uri, "%.*s://%.*s/%.*s", width(pNPConf->szBackend), pNPConf->szBackend,
                 width(pNPConf->szIP), pNPConf->szIP, width(pNPConf->szQName), pNPConf->szQName);

        char host64[64] = {0};
        char host[128] = {0};
        const bool have_host = gethostname(host64, sizeof host64) == 0 && host64[0];
        if (have_host) snprintf(host, sizeof host, "%.*s", (int)sizeof host64, host64);

        qp::ArgVec<11> argv;
        size_t next = 6;
        bool ok = argv.set(0, kLpadmin) && argv.set(1, "-p") && argv.set(2, queue) && argv.set(3, "-E") &&
                  argv.set(4, "-v") && argv.set(5, uri);
        if (ok && have_host) {
            ok = argv.set(next, "-L") && argv.set(next + 1, host);
            next += 2;
        }
        if (ok && ppd && ppd[0]) ok = argv.set(next, "-P") && argv.set(next + 1, ppd);
        if (!ok) {
            QP_SET_ERR(ERR_OUT_OF_MEMORY);
            return -1;
        }

        for (int left = 3;;) {
            int ret = QLIBCExecv(kLpadmin, argv.argv(), 1);
            if (ret == 0) break;
            --left;
            QP_LOG_ERR("add cups printer=%s, retry(%d) ... %s [%d]", queue, left, kLpadmin, ret);
            if (left == 0) return -1;
            sleep(2);
        }
        QP_LOG_ERR("add cups network printer=%s, ok", queue);
        return 0;
    });
}
