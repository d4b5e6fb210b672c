// QORAPrinterQueueGet: a shared printer's queue name from its USB/IP status
// file, with the bracketed part shown as "(CUPS Jobs)".
//
// The status writer puts a short note in brackets after the queue name
// ("usbprinter1 (2)"); the fragment from the opening bracket, at most 7
// characters and never past the closing one, gives way to "(CUPS Jobs".
//
// The status file is read through qp::tmpfile: one that is not root's own
// counts as missing, one over the size limit is an error.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "frame.hpp"
#include "names.hpp"
#include "safe_file.hpp"
#include "tmp_files.hpp"

QP_EXPORT int QORAPrinterQueueGet(const char *szPrinterId, char *szBuf, int cbBuf) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szPrinterId) && QP_ARG(0 != szPrinterId[0]) &&
                          QP_ARG(((void *)0) != szBuf) && QP_ARG(0 < cbBuf) &&
                          QP_ARG(qp::name_ok(szPrinterId, qp::kIdMax)));

    return QP_GUARD(-1, {
        char queue[4096];
        const std::string name = std::string("usbip_") + szPrinterId;
        std::string text;
        std::string_view value;
        const int rc = qp::tmpfile::read(name.c_str(), qp::safefile::kStatusLimit, text);
        if (rc != 0 || !qp::tmpfile::find(text, "QUEUE", value)) {
            QP_SET_ERR(rc == EFBIG ? ERR_READ_FAILED : rc == 0 ? ERR_KEY_NOT_FOUND : ERR_OPEN_FAILED);
            QP_LOG_ERR("get queue failed, printer=%s", szPrinterId);
            return -1;
        }
        snprintf(queue, sizeof queue, "%.*s", static_cast<int>(value.size()), value.data());

        const size_t cb = static_cast<size_t>(cbBuf);
        const char *open = strchr(queue, '(');
        if (open == nullptr) {
            snprintf(szBuf, cb, "%s", queue);
            return 0;
        }
        const char *close = strchr(queue, ')');
        if (close != nullptr) {
            size_t n = close > open ? static_cast<size_t>(close - open) : strlen(open);
            if (n > 7) n = 7;
            char fragment[8];
            memcpy(fragment, open, n);
            fragment[n] = '\0';
            if (QLIBCStrReplace(queue, fragment, "(CUPS Jobs", szBuf, cbBuf) > 0) return 0;
        }
        QP_LOG_ERR("cannot refine printer queue name");
        snprintf(szBuf, cb, "%s", queue);
        return 0;
    });
}
