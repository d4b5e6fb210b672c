// QORAPrinterNetIPCheck: does some CUPS queue already print to an address?
// A queue holds the address when its "lpstat -v" line, e.g.
//   device for Office: ipp://10.0.0.2/ipp/print
// contains "/ADDRESS/"; a URI with a port after the address does not.
#include <stdio.h>
#include <string.h>

#include "frame.hpp"
#include "net/net_scan.hpp"
#include "net/net_start.hpp"
#include "qorasdk.h"
#include "queue_listing.hpp"

namespace {

// A line holding "/ADDRESS/" stops the listing.
struct IpVisit {
    const char *pattern;
    bool operator()(const char *line) const { return strstr(line, pattern) != nullptr; }
};

// 0 when a line held the address, 1 after a whole listing without it, -1
// when no listing was read whole.
int answer(qp::Listing listing) {
    if (listing == qp::Listing::kFailed) return -1;
    return listing == qp::Listing::kStopped ? 0 : 1;
}

}  // namespace

int qp::net::lpstat_ip_scan(FILE *pPipe, const char *szIpPattern) {
    return answer(qp::read_listing(pPipe, IpVisit{szIpPattern}));
}

QP_EXPORT int QORAPrinterNetIPCheck(const char *szIP) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szIP));
    return QP_GUARD(-1, {
        // No queue, or no scheduler to hold one: the address is free.
        const int has_queues = QP_SCHEDULER_HAS_QUEUES(LOG_DEBUG);
        if (has_queues <= 0) return has_queues < 0 ? -1 : 1;

        const qp::net::HostPattern pattern(szIP);
        const int found = answer(qp::list_queues(IpVisit{pattern.text}));
        if (found < 0) QP_SET_ERR(ERR_EXTERNAL_FAILED);
        return found;
    });
}
