// QORAPrinterNetIPCheck: does some CUPS queue already print to an address?
// A queue holds the address when its "lpstat -v" line, e.g.
//   device for Office: ipp://10.0.0.2/ipp/print
// contains "/ADDRESS/"; a URI with a port after the address does not.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "frame.hpp"
#include "net/net_scan.hpp"
#include "owners.hpp"
#include "qorasdk.h"

namespace qp::net {

int lpstat_ip_scan(FILE *pPipe, const char *szIpPattern) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != pPipe) && QP_ARG(NULL != szIpPattern));
    const int savedErrno = errno;
    char line[kLineSize];
    int result = 1;
    for (;;) {
        errno = 0;
        if (!fgets(line, sizeof line, pPipe)) {
            result = (errno == EINTR) ? -1 : 1;
            break;
        }
        QLIBCStrTrim(line, 0, 0);
        if (strstr(line, szIpPattern)) {
            result = 0;
            break;
        }
    }
    errno = savedErrno;
    return result;
}

}  // namespace qp::net

QP_EXPORT int QORAPrinterNetIPCheck(const char *szIP) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szIP));

    if (QLIBServiceIsRunning("cupsd") <= 0) {
        QP_LOG_DEBUG("%s is not running.", "cupsd");
        return 1;
    }
    const int printers = QORAPrinterEnumCount(3, nullptr);
    if (printers < 0) {
        QP_LOG_ERR("Failed to Enum Printers." QP_LOWER_FMT, QP_LOWER_ARGS);
        return -1;
    }
    if (printers == 0) return 1;

    // Cut to the buffer: a longer "address" cannot be a queue's host anyway.
    char szPattern[32];
    snprintf(szPattern, sizeof szPattern, "/%s/", szIP);

    for (int attempt = 0; attempt < 3; ++attempt) {
        qp::Pipe lpstat(QLIBCPopen("/usr/bin/lpstat", "r", "-v", static_cast<char *>(nullptr)));
        if (!lpstat) continue;
        const int found = qp::net::lpstat_ip_scan(lpstat.get(), szPattern);
        const int closed = lpstat.close();
        if (found >= 0 && closed >= 0) return found;
        sleep(1);
    }
    QP_SET_ERR(ERR_EXTERNAL_FAILED);
    return -1;
}
