// QORAPrinterNetCupsNameAndIPCheck: does a CUPS queue of this name exist, and
// does its device URI print to this address?  Read from "lpstat -v" lines
//   device for NAME: URI
// 1: the queue's URI holds "/ADDRESS/"; 2: it does not; 0: no such queue.
#include <stdio.h>
#include <string.h>

#include "frame.hpp"
#include "net/net_scan.hpp"
#include "qorasdk.h"
#include "queue_listing.hpp"

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

}  // namespace qp::net

namespace {

// The queue's first line decides: 1 when its URI holds "/ADDRESS/", 2 when not.
struct NameIpVisit {
    const char *queue;
    const char *pattern;
    int &found;
    bool operator()(const char *line) const {
        std::string_view word;
        if (!qp::net::lpstat_queue_word(line, &word) || word != queue) return false;
        found = strstr(line, pattern) ? 1 : 2;
        return true;
    }
};

}  // namespace

int qp::net::lpstat_name_scan(FILE *pPipe, const char *szCupsPrinterName, const char *szIpPattern) {
    int found = 0;
    return qp::read_listing(pPipe, NameIpVisit{szCupsPrinterName, szIpPattern, found}) == qp::Listing::kFailed ? -1
                                                                                                               : found;
}

QP_EXPORT int QORAPrinterNetCupsNameAndIPCheck(const char *szIP, const char *szCupsPrinterName) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szIP) && QP_ARG(0 != szIP[0]) && QP_ARG(((void *)0) != szCupsPrinterName) &&
                          QP_ARG(0 != szCupsPrinterName[0]));
    return QP_GUARD(-1, {
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

        char pattern[32];
        snprintf(pattern, sizeof pattern, "/%s/", szIP);

        int found = 0;
        if (qp::list_queues(NameIpVisit{szCupsPrinterName, pattern, found}) == qp::Listing::kFailed) {
            QP_SET_ERR(ERR_EXTERNAL_FAILED);
            return -1;
        }
        return found;
    });
}
