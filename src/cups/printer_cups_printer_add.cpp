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

#include "cups/cups_scan.hpp"
#include "cups/queue_setup.hpp"
#include "frame.hpp"
#include "internal.hpp"
#include "names.hpp"
#include "owners.hpp"
#include "paths.hpp"
#include "qorasdk.h"
#include "queue_listing.hpp"

namespace {

// Which of the two USB queue names "lpstat -v" lists.  What was seen stays
// seen across attempts; an incomplete listing still decides.
struct UsbNamesVisit {
    bool &seen1, &seen2;
    bool operator()(const char *line) const {
        if (!seen1 && strstr(line, "usbprinter1"))
            seen1 = true;
        else if (!seen2 && strstr(line, "usbprinter2"))
            seen2 = true;
        return false;
    }
};

void scan_usb_names(bool &seen1, bool &seen2) { qp::list_queues(UsbNamesVisit{seen1, seen2}); }

// Creates the queue and stops it (it was created enabled): the caller
// starts it when the printer is to print.
int create_stopped(const char *queue, const std::string &uri, const std::string &ppd, const char *szPrinterId) {
    if (QP_CREATE_QUEUE(queue, uri.c_str(), ppd) != 0) return -1;
    QP_LOG_ERR("add cups printer=%s, ok", queue);
    if (QORAPrinterCupsPrinterEnable(queue, 0) != 0) QP_LOG_ERR("disable printer=%s failed", szPrinterId);
    return 0;
}

void store_name(const char *szName, const char *szPrinterId) {
    const qp::ConfLock lock(QORAPrinterPrinterConfLock());
    if (!lock || QLIBCFileSetSectionValue(qp::path::kPrinterConf, szPrinterId, "cups printer name", szName) < 0)
        QP_LOG_ERR("save printer name=%s failed, printer=%s " QP_LOWER_FMT, szName, szPrinterId, QP_LOWER_ARGS);
}

}  // namespace

bool qp::cups::usb_names_scan(FILE *pPipe, bool &seen1, bool &seen2) {
    return qp::read_listing(pPipe, UsbNamesVisit{seen1, seen2}) == qp::Listing::kFailed;
}

QP_EXPORT int QORAPrinterCupsAdd(const char *szPrinterId, const char *szPpdFile) {
    QP_CHECK_QUIET(-1, szPrinterId);
    // The ID names the kept PPD copy and the device: a plain name only.
    QP_CHECK_ARGS(-1, QP_ARG(!szPrinterId[0] || qp::name_ok(szPrinterId, qp::kIdMax)));
    return QP_GUARD(-1, {
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

        std::string ppd;
        if (!QP_CHOOSE_PPD(szPpdFile, szPrinterId, ppd)) return -1;

        const std::string uri = std::string("usb:/dev/usb/") + szPrinterId;
        if (create_stopped(chosen, uri, ppd, szPrinterId) != 0) return -1;
        // "usbprinter1" gets its twin "usbprinter" on the same device, without a PPD.
        if (strstr(chosen, "usbprinter1") && create_stopped("usbprinter", uri, std::string(), szPrinterId) != 0)
            return -1;
        return 0;
    });
}
