// QORAPrinterNetCupsNameAndIPCheck: does a CUPS queue of this name exist, and
// does its device URI print to this address?  Read from "lpstat -v" lines
//   device for NAME: URI
// 1: the queue's URI holds "/ADDRESS/"; 2: it does not; 0: no such queue.
#include <stdio.h>
#include <string.h>

#include "frame.hpp"
#include "net/net_scan.hpp"
#include "net/net_start.hpp"
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
auto first_line(const char *queue, const char *pattern) {
    return qp::first_line_holds(
        [queue](const char *line) {
            std::string_view word;
            return qp::net::lpstat_queue_word(line, &word) && word == queue;
        },
        pattern);
}

}  // namespace

int qp::net::lpstat_name_scan(FILE *pPipe, const char *szCupsPrinterName, const char *szIpPattern) {
    auto visit = first_line(szCupsPrinterName, szIpPattern);
    return qp::answer_after(qp::read_listing(pPipe, visit), visit);
}

QP_EXPORT int QORAPrinterNetCupsNameAndIPCheck(const char *szIP, const char *szCupsPrinterName) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szIP) && QP_ARG(0 != szIP[0]) && QP_ARG(((void *)0) != szCupsPrinterName) &&
                          QP_ARG(0 != szCupsPrinterName[0]));
    return QP_GUARD(-1, {
        const int has_queues = QP_SCHEDULER_HAS_QUEUES(LOG_ERR);
        if (has_queues <= 0) return has_queues;

        const qp::net::HostPattern pattern(szIP);
        auto visit = first_line(szCupsPrinterName, pattern.text);
        const int found = qp::answer_after(qp::list_queues(visit), visit);
        if (found < 0) QP_SET_ERR(ERR_EXTERNAL_FAILED);
        return found;
    });
}
