// QORAPrinterEnableExt: attach (iAction non-zero) and detach (iAction 0) of a
// USB printer, called by the hot-plug handling.
//
// Lock order: LOCK_USBIDMAP first; QORAPrinterConfSetup takes the
// configuration lock inside it and drops it before LOCK_USBIDMAP goes.  The
// driver notice and the Samba share step run after LOCK_USBIDMAP has been
// released, so a slow device never holds up another hot-plug event.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/ioctl.h>

#include <string>

#include "frame.hpp"
#include "internal.hpp"
#include "owners.hpp"
#include "paths.hpp"
#include "qorausb.h"
#include "safe_file.hpp"
#include "tmp_files.hpp"

namespace {

constexpr unsigned long kLpiocPrinterEnable = 0x40005008UL;   // 'P' 8, write, no data
constexpr unsigned long kLpiocPrinterDisable = 0x40005007UL;  // 'P' 7, write, no data
constexpr int kLockWaitLimit = 15;
constexpr int kStringIdSize = 4095;
constexpr int kIdCut = 127;                    // printer ID, producer and product name
constexpr const char *kUsbtabName = "usbtab";  // in /tmp

// A usbtab key as the core library's key-value writer accepts it: not empty,
// no '=', no control byte, not starting with '['.
bool usbtab_key_ok(const char *key) {
    if (key == nullptr || key[0] == '\0' || key[0] == '[' || key[0] == ' ' || key[0] == '\t') return false;
    for (const char *p = key; *p; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c == '=' || c < 0x20 || c == 0x7F) return false;
    }
    return true;
}

// Adds (iAction non-zero) or removes the usbtab line of a device.  Removal
// goes by device name when szBusId is NULL, else by bus ID: every "lp" line
// whose bus ID begins with szBusId (case-insensitive) goes, so 1-1 also
// takes 1-1.2 and 1-10.  Runs under LOCK_USBIDMAP.  The table is read and
// replaced through qp::tmpfile: a usbtab that is not root's own reads as
// empty and is replaced, never written through.
int UsbtabEdit(int iAction, const char *szDevName, const char *szBusId) {
    if (iAction != 0)
        QP_CHECK_QUIET(-1, usbtab_key_ok(szDevName) && szBusId != nullptr && szBusId[0] != '\0');
    else if (szBusId == nullptr)
        QP_CHECK_QUIET(-1, usbtab_key_ok(szDevName));

    std::string old;
    bool untrusted = false;
    const int rd = qp::tmpfile::read(kUsbtabName, qp::safefile::kTableLimit, old, &untrusted);
    if (rd != 0 && rd != ENOENT) {
        QP_LOG_ERR("read usbtab failed (%s)", strerror(rd));
        QP_SET_ERR(ERR_READ_FAILED);
        return -1;
    }

    std::string text;
    std::string removed = szDevName ? szDevName : "";
    if (iAction != 0) {
        text = qp::tmpfile::set_key(old, szDevName, szBusId);
    } else if (szBusId == nullptr) {
        text = qp::tmpfile::remove_key(old, szDevName);
    } else {
        const size_t bus_len = strlen(szBusId);
        text = old;
        for (const qp::tmpfile::Entry &e : qp::tmpfile::entries(old)) {
            if (e.key.compare(0, 2, "lp") != 0) continue;
            if (e.value.size() < bus_len || strncasecmp(e.value.data(), szBusId, bus_len) != 0) continue;
            text = qp::tmpfile::remove_key(text, e.key);
            if (removed.empty()) removed = e.key;
        }
    }
    // Nothing changes: no write, and a missing table stays missing.  A table
    // that is not root's own is replaced all the same.
    if (!untrusted && text == old && (rd == 0 || text.empty())) return 0;

    const int wr = qp::tmpfile::replace(kUsbtabName, text);
    if (wr != 0) {
        QP_SET_ERR(ERR_WRITE_FAILED);
        if (iAction != 0)
            QP_LOG_ERR("Set usbtab failed, devname=%s, device=%s (%s)", szDevName, szBusId, strerror(wr));
        else
            QP_LOG_ERR("rm usbtab failed, key=%s (%s)", removed.c_str(), strerror(wr));
        return -1;
    }
    return 0;
}

int UsbtabUpdate(int iAction, const char *szDevName, const char *szBusId) {
    return QP_GUARD(-1, { return UsbtabEdit(iAction, szDevName, szBusId); });
}

// Copies at most cut characters of src (or of its first n) into a field.
template <size_t N>
void set_field(char (&field)[N], const char *src, size_t n, size_t cut) {
    if (n > cut) n = cut;
    if (n > N - 1) n = N - 1;
    memcpy(field, src, n);
    field[n] = '\0';
}

template <size_t N>
void set_field(char (&field)[N], const char *src, size_t cut) {
    set_field(field, src, strnlen(src, cut), cut);
}

// Forms the printer's ID and writes its printer.conf section.  Runs under
// LOCK_USBIDMAP.
int UsbPrinterConfSetup(const char *szDevName) {
    QP_CHECK_QUIET(-1, szDevName != nullptr && szDevName[0] != '\0');

    QORAUSB_DEV_INFO info;
    memset(&info, 0, sizeof(info));
    if (QORAUSBDevGetInfo(szDevName, &info) < 0) {
        QP_LOG_ERR("QORAUSBDevGetInfo failed. " QP_CODE_FMT, QLIBCErrGet());
        return -1;
    }
    info.szManufacturer[sizeof(info.szManufacturer) - 1] = '\0';
    info.szProduct[sizeof(info.szProduct) - 1] = '\0';
    info.szSerial[sizeof(info.szSerial) - 1] = '\0';
    info.szPrinterId[sizeof(info.szPrinterId) - 1] = '\0';

    // The bus ID is no part of the ID, so the printer keeps its section when
    // it moves to another port.
    char printer_id[kIdCut + 1];
    if (info.szPrinterId[0] != '\0') {
        set_field(printer_id, info.szPrinterId, kIdCut);
    } else if (info.ulVendorId != 0 && info.ulProductId != 0 && info.szSerial[0] != '\0') {
        char composed[2 * 16 + 2 + sizeof(info.szSerial) + 1];
        snprintf(composed, sizeof(composed), "%04lx:%04lx:%s", info.ulVendorId, info.ulProductId, info.szSerial);
        set_field(printer_id, composed, kIdCut);
    } else {
        QP_LOG_ERR("wrong printer id format! errno=0x[%X]", QLIBCErrGet());
        return -1;
    }

    qp::Hash stored(1024);
    if (!stored) {
        QP_SET_ERR(ERR_OUT_OF_MEMORY);
        return -1;
    }
    QLIBCFileGetSection(qp::path::kPrinterConf, printer_id, stored.addr());

    qp::MallocPtr<PrinterConf> conf(static_cast<PrinterConf *>(calloc(1, sizeof(PrinterConf))));
    qp::MallocPtr<char> stringId(static_cast<char *>(calloc(1, kStringIdSize)));
    if (!conf || !stringId) {
        QP_SET_ERR(ERR_OUT_OF_MEMORY);
        return -1;
    }
    PrinterConf &c = *conf.get();
    set_field(c.szPrinterId, printer_id, kIdCut);

    // Only whether a string came back matters: a cut one is still used.
    char *sid = stringId.get();
    QORAPrinterGetStringId(szDevName, sid, kStringIdSize);
    if (sid[0] != '\0') {
        set_field(c.szUsblpStringId, sid, sizeof(c.szUsblpStringId) - 1);
        const char *model = strstr(sid, "MDL:");
        if (model == nullptr) model = strstr(sid, "DES:");
        if (model != nullptr) {
            model += 4;
            set_field(c.szProductName, model, strcspn(model, ";"), kIdCut);
        }
    } else {
        QP_LOG_ERR("Bad parameter");
    }
    if (c.szProductName[0] == '\0' && info.szProduct[0] != '\0') set_field(c.szProductName, info.szProduct, kIdCut);
    if (info.szManufacturer[0] != '\0') set_field(c.szProducer, info.szManufacturer, kIdCut);

    // "lpr" (any case) is switched to USB/IP sharing; any other stored mode
    // is the administrator's choice and stays.
    const char *mode = stored.value("mode");
    if (mode == nullptr || mode[0] == '\0' || strcasecmp(mode, "lpr") == 0) set_field(c.szMode, "usbip", kIdCut);

    if (QORAPrinterConfSetup(&c, 0) < 0) {
        QP_LOG_ERR("setup printer.conf fail! (printerid: %s)," QP_LOWER_FMT, printer_id, QP_LOWER_ARGS);
        return -1;
    }
    return 0;
}

// Sends a driver notice.  The node may be busy or gone already; neither
// matters to the caller.
void notify_driver(const char *szDevName, unsigned long request) {
    qp::UniqueFd fd(QORAPrinterDevOpen(szDevName, 0));
    if (!fd.valid()) return;
    int arg = 0;
    (void)ioctl(fd.get(), request, &arg);
}

// A device name "lp" + number is limited to lp0 and lp1; a name without a
// number after "lp" counts as 0, and other names are not limited.
bool over_printer_limit(const char *szDevName) {
    if (strncmp(szDevName, "lp", 2) != 0) return false;
    return strtol(szDevName + 2, nullptr, 10) > 1;
}

const char *or_empty(const char *s) { return s ? s : ""; }

}  // namespace

QP_EXPORT int QORAPrinterEnableExt(int iAction, const char *szDevName, const char *szBusId) {
    QP_CHECK_QUIET(-1, iAction == 0 || (szDevName != nullptr && szBusId != nullptr && szBusId[0] != '\0'));

    if (QLIBCFileLock(LOCK_USBIDMAP | LOCK_MODE_EX_WAIT, kLockWaitLimit) != 0) {
        QP_LOG_ERR("QLIBCFileLock() failed.");
        QP_SET_ERR(ERR_LOCK_FAILED);
        return -1;
    }
    qp::UsbIdMapLock lock(LOCK_USBIDMAP);
    // Released as soon as the tables are written, before the driver is told.
    auto release = [&lock]() {
        if (lock.close() != 0) {
            QP_SET_ERR(ERR_UNLOCK_FAILED);
            QP_LOG_ERR("unlock LOCK_USBIDMAP failed");
        }
    };

    int result = -1;
    if (iAction != 0) {
        if (over_printer_limit(szDevName)) {
            QP_LOG_ERR("Exceed the max number of printers supported.");
            result = 0;
        } else if (UsbtabUpdate(iAction, szDevName, szBusId) < 0) {
            QP_LOG_ERR("%s update entry %s=%s failed.(action=%d)" QP_CODE_FMT, qp::path::kUsbtab, szDevName, szBusId,
                       iAction, QLIBCErrGet());
        } else if (UsbPrinterConfSetup(szDevName) < 0) {
            QP_LOG_ERR("Set Printer Conf failed" QP_CODE_FMT ", printer=%s", QLIBCErrGet(), szDevName);
        } else {
            release();
            notify_driver(szDevName, kLpiocPrinterEnable);
            if (QORAPrinterSmbConfSetup() < 0) {
                QP_LOG_ERR("update smb.conf failed, printer=%s", szDevName);
                result = -1;
            } else {
                result = 0;
            }
        }
    } else if (szDevName != nullptr) {
        // An empty bus ID would be a prefix of every bus ID: treat it as
        // absent and remove by device name.
        const char *bus = (szBusId != nullptr && szBusId[0] != '\0') ? szBusId : nullptr;
        if (UsbtabUpdate(0, szDevName, bus) < 0) {
            QP_LOG_ERR("%s update entry %s=%s failed.(action=%d)" QP_CODE_FMT, qp::path::kUsbtab, szDevName,
                       or_empty(bus), iAction, QLIBCErrGet());
        } else {
            release();
            notify_driver(szDevName, kLpiocPrinterDisable);
            result = 0;
        }
    } else if (szBusId == nullptr || szBusId[0] == '\0') {
        QP_LOG_ERR("delete printer failed: no bus id");
    } else if (UsbtabUpdate(0, nullptr, szBusId) < 0) {
        QP_LOG_ERR("%s update entry %s=%s failed.(action=%d)" QP_CODE_FMT, qp::path::kUsbtab, "", szBusId, iAction,
                   QLIBCErrGet());
    } else {
        release();
        result = 0;
    }

    if (lock) release();
    return result;
}
