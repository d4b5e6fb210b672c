// QORAPrinterQueueGet: a shared printer's queue name from its USB/IP status
// file, with the bracketed part shown as "(CUPS Jobs)".
//
// The status writer puts a short note in brackets after the queue name
// ("usbprinter1 (2)"); the fragment from the opening bracket, at most 7
// characters and never past the closing one, gives way to "(CUPS Jobs".
#include <stdio.h>
#include <string.h>

#include "frame.hpp"
#include "paths.hpp"

QP_EXPORT int QORAPrinterQueueGet(const char *szPrinterId, char *szBuf, int cbBuf) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szPrinterId) && QP_ARG(0 != szPrinterId[0]) &&
                          QP_ARG(((void *)0) != szBuf) && QP_ARG(0 < cbBuf));

    char szPath[256];
    snprintf(szPath, sizeof(szPath), qp::path::kUsbipStatusFmt, szPrinterId);
    char szQueue[4096];
    if (QLIBCFileGetKeyValue(szPath, "QUEUE", szQueue, sizeof(szQueue), 0) < 0) {
        QP_LOG_ERR("get queue failed, printer=%s", szPrinterId);
        return -1;
    }
    szQueue[sizeof(szQueue) - 1] = '\0';

    const size_t cb = static_cast<size_t>(cbBuf);
    const char *open = strchr(szQueue, '(');
    if (open == nullptr) {
        snprintf(szBuf, cb, "%s", szQueue);
        return 0;
    }
    const char *close = strchr(szQueue, ')');
    if (close != nullptr) {
        size_t n = close > open ? static_cast<size_t>(close - open) : strlen(open);
        if (n > 7) n = 7;
        char szFragment[8];
        memcpy(szFragment, open, n);
        szFragment[n] = '\0';
        if (QLIBCStrReplace(szQueue, szFragment, "(CUPS Jobs", szBuf, cbBuf) > 0) return 0;
    }
    QP_LOG_ERR("cannot refine printer queue name");
    snprintf(szBuf, cb, "%s", szQueue);
    return 0;
}
