// QORAPrinterCupsAdd: give an attached USB printer its queue.
//
// The queue keeps the name stored for the printer while that name is free or
// still on the printer's device, else takes the first of "usbprinter1" and
// "usbprinter2" that lpstat does not list.  "usbprinter1" gets its twin
// "usbprinter" on the same device, without a PPD.  Both are left stopped.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "cups/cups_argv.hpp"
#include "cups/cups_scan.hpp"
#include "frame.hpp"
#include "internal.hpp"
#include "names.hpp"
#include "owners.hpp"
#include "paths.hpp"
#include "qorasdk.h"

namespace qp::cups {

bool usb_names_scan(FILE *pPipe, bool &seen1, bool &seen2) {
    const int saved_errno = errno;
    char line[1024];
    for (;;) {
        errno = 0;
        if (!fgets(line, sizeof line, pPipe)) break;
        QLIBCStrTrim(line, 0, 0);
        if (!seen1 && strstr(line, "usbprinter1")) {
            seen1 = true;
            continue;
        }
        if (!seen2 && strstr(line, "usbprinter2")) seen2 = true;
    }
    const bool interrupted = (errno == EINTR);
    errno = saved_errno;
    return interrupted;
}

}  // namespace qp::cups

namespace {

constexpr const char *kLpadmin = "/usr/bin/lpadmin";

// Which of the two USB queue names "lpstat -v" lists.  What was seen stays
// seen across attempts; an incomplete listing still decides.
void scan_usb_names(bool &seen1, bool &seen2) {
    for (int attempt = 0; attempt < 3; ++attempt) {
        qp::Pipe pipe(QLIBCPopen("/usr/bin/lpstat", "r", "-v", (char *)NULL));
        if (!pipe) continue;  // could not start: no pause

        const bool interrupted = qp::cups::usb_names_scan(pipe.get(), seen1, seen2);

        if (interrupted) {
            pipe.close();
            sleep(1);
            continue;
        }
        if (pipe.close() >= 0) return;
        sleep(1);
    }
}

void store_name(const char *szName, const char *szPrinterId) {
    int fd = QORAPrinterPrinterConfLock();
    if (fd < 0) {
        QP_LOG_ERR("save printer name=%s failed, printer=%s " QP_LOWER_FMT, szName, szPrinterId, QP_LOWER_ARGS);
        return;
    }
    if (QLIBCFileSetSectionValue(qp::path::kPrinterConf, szPrinterId, "cups printer name", szName) < 0)
        QP_LOG_ERR("save printer name=%s failed, printer=%s " QP_LOWER_FMT, szName, szPrinterId, QP_LOWER_ARGS);
    QORAPrinterPrinterConfUnlock(fd);
}

}  // namespace

QP_EXPORT int QORAPrinterCupsAdd(const char *szPrinterId, const char *szPpdFile) {
    return QP_GUARD(-1, {
        QP_CHECK_QUIET(-1, szPrinterId);
        // The ID names the kept PPD copy and the device: a plain name only.
        QP_CHECK_ARGS(-1, QP_ARG(!szPrinterId[0] || qp::name_ok(szPrinterId, qp::kIdMax)));

        if (!QLIBServiceIsRunning("cupsd") && QLIBServiceStart("cupsd", 0) < 0) {
            QP_LOG_ERR("start %s failed. " QP_LOWER_FMT, "cupsd", QP_LOWER_ARGS);
            return -1;
        }

        if (!szPrinterId[0]) {
            // Same message as a failed argument check, but after the start.
            qp::log_bad_argument(__FILE_NAME__, __LINE__, "0 != szPrinterId[0]");
            QP_LOG_ERR("cannot find cups printer name, printer=%s", szPrinterId);
            return -1;
        }

        char stored[64] = {0};
        char chosen[64] = {0};
        bool have_name = false;
        // A stored name that does not fit or is no queue name is not used
        // (never cut): the printer gets a fresh name as if none were stored.
        if (qp::stored_queue_name(szPrinterId, stored, sizeof stored) == 0) {
            int check = QORAPrinterCupsNameCheck(szPrinterId, stored);
            if (check == 0 || check == 1) {
                snprintf(chosen, sizeof chosen, "%s", stored);
                have_name = true;
            }
        }

        if (!have_name) {
            if (!QLIBServiceIsRunning("cupsd")) {
                QP_LOG_ERR("%s is not running.", "cupsd");
                snprintf(chosen, sizeof chosen, "usbprinter%d", 1);
            } else {
                bool seen1 = false, seen2 = false;
                scan_usb_names(seen1, seen2);
                if (!seen1) {
                    snprintf(chosen, sizeof chosen, "usbprinter%d", 1);
                } else if (!seen2) {
                    snprintf(chosen, sizeof chosen, "usbprinter%d", 2);
                } else {
                    QP_LOG_ERR("cannot find cups printer name, printer=%s", szPrinterId);
                    return -1;
                }
            }
        }

        // Stored before the PPD is looked at or lpadmin runs; it stays when
        // either fails.
        store_name(chosen, szPrinterId);

        const char *ppd = nullptr;
        std::string kept;
        if (szPpdFile && szPpdFile[0]) {
            struct stat st;
            if (stat(szPpdFile, &st) != 0) {
                QP_LOG_ERR("add cups printer, ppd file does not exist,path=%s", szPpdFile);
                return -1;
            }
            if (printer_backup_ppd(szPpdFile, szPrinterId) != 0)
                QP_LOG_ERR("Failed to backup ppd file: %s" QP_LOWER_FMT, szPpdFile, QP_LOWER_ARGS);
            ppd = szPpdFile;
        } else {
            kept = std::string(qp::path::kCupsPpdDir) + szPrinterId + ".ppd";
            if (QLIBCFileExist(kept.c_str())) ppd = kept.c_str();
        }

        char uri[4096];
        snprintf(uri, sizeof uri, "usb:/dev/usb/%s", szPrinterId);
        char host64[64] = {0};
        char host[128] = {0};
        const bool have_host = gethostname(host64, sizeof host64) == 0 && host64[0];
        if (have_host) snprintf(host, sizeof host, "%.*s", (int)sizeof host64, host64);

        qp::ArgVec<11> argv;
        char *queue = argv.set_buffer(2, 1024);
        if (!queue || !argv.set(0, kLpadmin) || !argv.set(1, "-p") || !argv.set(3, "-E") || !argv.set(4, "-v") ||
            !argv.set(5, uri) || (have_host && (!argv.set(6, "-L") || !argv.set(7, host)))) {
            QP_SET_ERR(ERR_OUT_OF_MEMORY);
            return -1;
        }
        snprintf(queue, 1024, "%s", chosen);
        const size_t ppd_slot = have_host ? 8 : 6;

        for (bool first = true;; first = false) {
            if (first && ppd && ppd[0]) {
                if (!argv.set(ppd_slot, "-P") || !argv.set(ppd_slot + 1, ppd)) {
                    QP_SET_ERR(ERR_OUT_OF_MEMORY);
                    return -1;
                }
            } else {
                argv.clear(ppd_slot);
                argv.clear(ppd_slot + 1);
            }

            for (int left = 3;;) {
                int ret = QLIBCExecv(kLpadmin, argv.argv(), 1);
                if (ret == 0) break;
                --left;
                QP_LOG_ERR("add cups printer=%s, retry(%d) ... %s [%d]", queue, left, kLpadmin, ret);
                if (left == 0) return -1;
                sleep(2);
            }
            QP_LOG_ERR("add cups printer=%s, ok", queue);

            // Created with -E, then stopped: the caller starts it when the
            // printer is to print.
            if (QORAPrinterCupsPrinterEnable(queue, 0) != 0) QP_LOG_ERR("disable printer=%s failed", szPrinterId);

            if (!(first && strstr(queue, "usbprinter1"))) break;
            snprintf(queue, 1024, "%s", "usbprinter");
        }
        return 0;
    });
}
