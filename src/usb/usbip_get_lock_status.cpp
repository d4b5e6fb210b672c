// QORAPrinterUsbipGetLockStatus: a shared printer's lock status from its
// USB/IP status file.  A printer without a status file, or whose status file
// is not root's own (see tmp_files.hpp), reads as "Free"; a status file over
// the size limit is an error.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "frame.hpp"
#include "names.hpp"
#include "safe_file.hpp"
#include "tmp_files.hpp"

QP_EXPORT int QORAPrinterUsbipGetLockStatus(const char *szPrinterId, char *szBuf, int cbBuf) {
    QP_CHECK_QUIET(-1, szBuf != nullptr && cbBuf > 0 && szPrinterId != nullptr);
    QP_CHECK_ARGS(-1, QP_ARG(qp::name_ok(szPrinterId, qp::kIdMax)));
    return QP_GUARD(-1, {
        const std::string name = std::string("usbip_") + szPrinterId;
        std::string text;
        const int rc = qp::tmpfile::read(name.c_str(), qp::safefile::kStatusLimit, text);
        if (rc != 0 && rc != ENOENT) {
            QP_LOG_ERR("read status failed (%s), printer=%s", strerror(rc), szPrinterId);
            QP_SET_ERR(rc == EFBIG ? ERR_VALUE_TOO_LONG : ERR_READ_FAILED);
            return -1;
        }
        std::string_view value;
        if (rc == 0 && qp::tmpfile::find(text, "LOCK", value))
            snprintf(szBuf, static_cast<size_t>(cbBuf), "%.*s", static_cast<int>(value.size()), value.data());
        else
            snprintf(szBuf, static_cast<size_t>(cbBuf), "%s", "Free");
        return 0;
    });
}
