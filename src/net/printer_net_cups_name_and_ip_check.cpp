// QORAPrinterNetCupsNameAndIPCheck: does a CUPS queue of this name exist, and
// does its device URI print to this address?  Read from "lpstat -v" lines
//   device for NAME: URI
// 1: the queue's URI holds "/ADDRESS/"; 2: it does not; 0: no such queue.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "frame.hpp"
#include "net/net_scan.hpp"
#include "owners.hpp"
#include "qorasdk.h"

namespace qp::net {

bool lpstat_queue_word(std::string_view line, std::string_view *word) {
    const size_t first = line.find(' ');
    if (first == std::string_view::npos) return false;
    const size_t second = line.find(' ', first + 1);
    if (second == std::string_view::npos) return false;
    std::string_view rest = line.substr(second + 1);
    *word = rest.substr(0, rest.find(':'));
    return true;
}

int lpstat_name_scan(FILE *pPipe, const char *szCupsPrinterName, const char *szIpPattern) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != pPipe) && QP_ARG(((void *)0) != szCupsPrinterName) &&
                          QP_ARG(NULL != szIpPattern));
    const int savedErrno = errno;
    char line[kLineSize];
    int result = 0;
    for (;;) {
        errno = 0;
        if (!fgets(line, sizeof line, pPipe)) {
            result = (errno == EINTR) ? -1 : 0;
            break;
        }
        QLIBCStrTrim(line, 0, 0);
        std::string_view word;
        if (!lpstat_queue_word(line, &word) || word != szCupsPrinterName) continue;
        result = strstr(line, szIpPattern) ? 1 : 2;
        break;
    }
    errno = savedErrno;
    return result;
}

}  // namespace qp::net

QP_EXPORT int QORAPrinterNetCupsNameAndIPCheck(const char *szIP, const char *szCupsPrinterName) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szIP) && QP_ARG(0 != szIP[0]) &&
                          QP_ARG(((void *)0) != szCupsPrinterName) && QP_ARG(0 != szCupsPrinterName[0]));

    if (QLIBServiceIsRunning("cupsd") <= 0) {
        QP_LOG_ERR("%s is not running.", "cupsd");
        return 0;
    }
    const int printers = QORAPrinterEnumCount(3, nullptr);
    if (printers < 0) {
        QP_LOG_ERR("Failed to Enum Printers." QP_LOWER_FMT, QP_LOWER_ARGS);
        return -1;
    }
    if (printers == 0) return 0;

    char szPattern[32];
    snprintf(szPattern, sizeof szPattern, "/%s/", szIP);

    for (int attempt = 0; attempt < 3; ++attempt) {
        qp::Pipe lpstat(QLIBCPopen("/usr/bin/lpstat", "r", "-v", static_cast<char *>(nullptr)));
        if (!lpstat) continue;
        const int found = qp::net::lpstat_name_scan(lpstat.get(), szCupsPrinterName, szPattern);
        const int closed = lpstat.close();
        if (found >= 0 && closed >= 0) return found;
        sleep(1);
    }
    QP_SET_ERR(ERR_EXTERNAL_FAILED);
    return -1;
}
