// QORAPrinterNetAvahiInfoGet: identifies a printer at an address from the
// services it announces over mDNS.  One dump of "avahi-browse -arpt" gives
// resolved records such as
//   =;eth0;IPv4;Office;_ipp._tcp;local;office.local;10.0.0.2;631;"usb_MDL=X1" "usb_MFG=ACME"
// The port of a record decides the backend (8611 bjnp before 9100 socket
// before 515 lpd before 631 ipp); its TXT data gives maker, model and
// command set, from which a device ID string is built.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <charconv>

#include "frame.hpp"
#include "net/net_scan.hpp"
#include "net/net_start.hpp"
#include "owners.hpp"
#include "paths.hpp"
#include "qorasdk.h"

namespace {

struct PortRow {
    unsigned port;
    const char *backend;
};
// In order of priority.
constexpr PortRow kPorts[4] = {{8611, "bjnp"}, {9100, "socket"}, {515, "lpd"}, {631, "ipp"}};

// The value of a TXT item: what follows the key up to the next double quote.
void txt_value(const char *szDesc, const char *szKey, char *szBuf, size_t cbBuf) {
    const char *at = strstr(szDesc, szKey);
    if (!at) return;
    at += strlen(szKey);
    const char *end = strchr(at, '"');
    size_t n = end ? static_cast<size_t>(end - at) : strlen(at);
    if (n >= cbBuf) n = cbBuf - 1;
    memcpy(szBuf, at, n);
    szBuf[n] = '\0';
}

// Appends text to a NUL-terminated buffer, cut at the buffer's end.
void append_cut(char *szBuf, size_t cbBuf, const char *szText) {
    const size_t len = strnlen(szBuf, cbBuf);
    if (len + 1 >= cbBuf) return;
    const size_t n = std::min(strlen(szText), cbBuf - 1 - len);
    memcpy(szBuf + len, szText, n);
    szBuf[len + n] = '\0';
}

int port_slot(const char *szPiece) {
    unsigned port = 0;
    const char *end = szPiece + strlen(szPiece);
    auto [ptr, ec] = std::from_chars(szPiece, end, port);
    if (ec != std::errc() || ptr != end) return -1;
    for (int i = 0; i < 4; ++i) {
        if (kPorts[i].port == port) return i;
    }
    return -1;
}

}  // namespace

namespace qp::net {

int avahi_txt_read(const char *szDesc, PrinterNetInfo *pNPInfo) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szDesc) && QP_ARG(NULL != pNPInfo));
    char cmd[kLineSize] = "";
    txt_value(szDesc, "usb_MDL=", pNPInfo->szModel, sizeof pNPInfo->szModel);
    txt_value(szDesc, "usb_MFG=", pNPInfo->szVendor, sizeof pNPInfo->szVendor);
    txt_value(szDesc, "usb_CMD=", cmd, sizeof cmd);

    // A device ID string the caller already holds is kept.
    if (pNPInfo->szStringId[0] != '\0') return 0;
    if (pNPInfo->szVendor[0] == '\0' || pNPInfo->szModel[0] == '\0') {
        snprintf(pNPInfo->szVendor, sizeof pNPInfo->szVendor, "%s", "Not Found");
        snprintf(pNPInfo->szModel, sizeof pNPInfo->szModel, "%s", "Not Found");
        QP_LOG_ERR("Failed to make printer string ID. Info: %s", szDesc);
    }
    // "MFG:%s;CMD:%s;MDL:%s;CLS:PRINTER;DES:%s %s;", cut to 1023 characters
    // like every other device ID string.
    char *id = pNPInfo->szStringId;
    const size_t size = sizeof pNPInfo->szStringId;
    id[0] = '\0';
    const char *const pieces[] = {
        "MFG:", pNPInfo->szVendor, ";CMD:", cmd, ";MDL:", pNPInfo->szModel, ";CLS:PRINTER;DES:", pNPInfo->szVendor,
        " ",    pNPInfo->szModel,  ";"};
    for (const char *piece : pieces) append_cut(id, size, piece);
    return 0;
}

int avahi_read(FILE *browse, const char *pattern, PQLIBSZLIST *ppList, AvahiSlots *slots) {
    int result = 0;
    const Lines got = each_line(browse, [&](char *line) {
        if (!strstr(line, pattern)) return false;
        // The list keeps the pieces of every line of the address; this
        // line's are the ones appended now.
        const int before = *ppList ? (*ppList)->nItem : 0;
        if (QLIBCStrTok(line, ";", ppList) < 0) {
            QP_LOG_ERR("Failed to QLIBCStrTok" QP_LOWER_FMT, QP_LOWER_ARGS);
            result = -1;
            return true;
        }
        const int after = *ppList ? (*ppList)->nItem : 0;
        if (after - before < 2) return false;
        // The port is the field before the last; a ';' inside the TXT data
        // shifts both, and such a line is then as a rule ignored.
        const char *port = (*ppList)->pszItem[after - 2];
        const char *txt = (*ppList)->pszItem[after - 1];
        const int slot = port_slot(port);
        if (slot >= 0) snprintf(slots->txt[slot], sizeof slots->txt[slot], "%s", txt);
        return false;
    });
    return got == Lines::kInterrupted ? -1 : result;
}

}  // namespace qp::net

QP_EXPORT int QORAPrinterNetAvahiInfoGet(const char *szIP, PrinterNetInfo *pNPInfo) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szIP) && QP_ARG(NULL != pNPInfo));
    return QP_GUARD(-1, {
        if (!QLIBCIsProcAlive("avahi-daemon") && QLIBServiceStart("avahi", 0) < 0) {
            // The browse runs all the same; without a daemon it lists nothing.
            QP_LOG_ERR("Service start failed. " QP_LOWER_FMT, QP_LOWER_ARGS);
        }

        qp::List pieces(1024);
        if (!pieces) {
            QP_SET_ERR(ERR_OUT_OF_MEMORY);
            errno = 0;
            return -1;
        }

        char pattern[qp::net::kLineSize];
        snprintf(pattern, sizeof pattern, ";%s;", szIP);

        qp::Pipe browse(QLIBCPopen(qp::tool::kAvahiBrowse, "r", "-arpt", static_cast<char *>(nullptr)));
        if (!QP_STARTED(browse)) return -1;
        const int saved_errno = errno;
        errno = 0;
        qp::net::AvahiSlots slots = {};
        int result = qp::net::avahi_read(browse.get(), pattern, pieces.addr(), &slots);
        if (result == 0) {
            result = 1;
            for (int i = 0; i < 4; ++i) {
                if (slots.txt[i][0] == '\0') continue;
                snprintf(pNPInfo->szBackend, sizeof pNPInfo->szBackend, "%s", kPorts[i].backend);
                if (qp::net::avahi_txt_read(slots.txt[i], pNPInfo) < 0) {
                    constexpr const char *kFailed[4] = {"BJNP", "Socket", "LPD", "IPP"};
                    QP_LOG_ERR("Failed to set network printer %s info: %s" QP_LOWER_FMT, kFailed[i], slots.txt[i],
                               QP_LOWER_ARGS);
                    result = -1;
                } else {
                    result = 0;
                }
                break;
            }
        }
        browse.close();
        errno = saved_errno;
        return result;
    });
}
