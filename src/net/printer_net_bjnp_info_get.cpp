// QORAPrinterNetBjnpInfoGet: identifies a printer at an address from the
// listing of the BJNP backend run without arguments, e.g.
//   network bjnp://10.0.0.2:8611 "ACME X1" "ACME X1 10.0.0.2" "MFG:ACME;MDL:X1;"
// The backend discovers printers by broadcast, so one run lists them all; a
// listing that cannot be read is retried (3 runs, 1 s apart).
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "frame.hpp"
#include "net/net_scan.hpp"
#include "owners.hpp"
#include "paths.hpp"

namespace qp::net {

int bjnp_read(FILE *pPipe, const char *szIpPattern, PrinterNetInfo *pNPInfo) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != pPipe) && QP_ARG(((void *)0) != szIpPattern) && QP_ARG(NULL != pNPInfo));
    const int saved_errno = errno;
    char line[kLineSize];
    for (;;) {
        errno = 0;
        if (!fgets(line, sizeof line, pPipe)) {
            const int result = (errno == EINTR) ? -1 : 1;
            errno = saved_errno;
            return result;
        }
        QLIBCStrTrim(line, 0, 0);
        // "network bjnp "Unknown" ..." is what the backend prints when it
        // found no printer at all.
        if (strstr(line, "\"Unknown\"")) {
            errno = saved_errno;
            return 1;
        }
        if (strstr(line, "\"Unidentified printer\"")) {
            errno = saved_errno;
            return -1;
        }
        if (strstr(line, szIpPattern)) break;
    }

    const char *id = strstr(line, "MANUFACTURER:");
    if (!id) id = strstr(line, "MFG:");
    if (!id) id = strstr(line, "MFR:");
    if (!id) {
        QP_SET_ERR(ERR_FIELD_NOT_FOUND);
    } else {
        // The device ID runs to the end of the line less its closing ";" and
        // quote.  A key is at least 4 characters, so the length stays positive.
        const size_t len = strlen(id) - 2;
        const size_t n = len < sizeof pNPInfo->szStringId ? len : sizeof pNPInfo->szStringId - 1;
        memcpy(pNPInfo->szStringId, id, n);
        pNPInfo->szStringId[n] = '\0';
        if (QORAPrinterConfStringIdGetVendor(pNPInfo->szStringId, pNPInfo->szVendor, sizeof pNPInfo->szVendor) >= 0 &&
            QORAPrinterConfStringIdGetModel(pNPInfo->szStringId, pNPInfo->szModel, sizeof pNPInfo->szModel) >= 0) {
            snprintf(pNPInfo->szBackend, sizeof pNPInfo->szBackend, "%s", "bjnp");
            errno = saved_errno;
            return 0;
        }
    }
    QP_LOG_ERR("Failed to set network printer BJNP info: %s" QP_LOWER_FMT, line, QP_LOWER_ARGS);
    errno = saved_errno;
    return -1;
}

}  // namespace qp::net

QP_EXPORT int QORAPrinterNetBjnpInfoGet(const char *szIP, PrinterNetInfo *pNPInfo) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szIP) && QP_ARG(NULL != pNPInfo));
    return QP_GUARD(-1, {
        // "/ADDRESS:8611" keeps 10.0.0.2 from matching 10.0.0.20; cut to the
        // buffer so that no text given as an address can overrun it.
        char pattern[32];
        snprintf(pattern, sizeof pattern, "/%s:8611", szIP);

        for (int attempt = 0; attempt < 3; ++attempt) {
            qp::Pipe backend(QLIBCPopen(qp::tool::kBjnpBackend, "r", static_cast<char *>(nullptr)));
            if (!backend) continue;
            const int found = qp::net::bjnp_read(backend.get(), pattern, pNPInfo);
            const int closed = backend.close();
            if ((found == 0 || found == 1) && closed >= 0) return found;
            sleep(1);
        }
        QP_SET_ERR(ERR_EXTERNAL_FAILED);
        return -1;
    });
}
