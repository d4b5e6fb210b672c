// QORAPrinterNetPingStatus: "Online" or "Offline" from one second of ping.
// The summary line of iputils ping reads
//   1 packets transmitted, 1 received, 0% packet loss, time 0ms
// and the printer is online unless the loss figure is 100.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "frame.hpp"
#include "names.hpp"
#include "net/net_scan.hpp"
#include "owners.hpp"
#include "paths.hpp"

namespace qp::net {

bool ping_summary_online(std::string_view line) {
    // The third comma-separated field, up to its percent sign.
    const size_t c1 = line.find(',');
    if (c1 == std::string_view::npos) return false;
    const size_t c2 = line.find(',', c1 + 1);
    if (c2 == std::string_view::npos) return false;  // no third field: no answer seen
    std::string_view loss = line.substr(c2 + 1);
    loss = loss.substr(0, loss.find(','));
    loss = loss.substr(0, loss.find('%'));
    size_t i = 0;
    while (i < loss.size() && (loss[i] == ' ' || loss[i] == '\t')) ++i;
    // Only digits count: "+1 errors" (a field ping adds on longer runs) is no
    // loss figure, and a missing figure must not read as 0 % loss.
    if (i == loss.size() || loss[i] < '0' || loss[i] > '9') return false;
    unsigned long value = 0;
    for (; i < loss.size() && loss[i] >= '0' && loss[i] <= '9'; ++i) {
        if (value <= 1000) value = value * 10 + static_cast<unsigned long>(loss[i] - '0');
    }
    return value != 100;
}

int ping_read(FILE *out, char *szStatus, int cbStatus) {
    if (cbStatus > 0) snprintf(szStatus, static_cast<size_t>(cbStatus), "%s", "Offline");
    // No summary: the answer stays "Offline".
    const Lines got = each_line(out, [&](char *line) {
        if (!strstr(line, "packet loss")) return false;
        if (ping_summary_online(line) && cbStatus > 0)
            snprintf(szStatus, static_cast<size_t>(cbStatus), "%s", "Online");
        return true;
    });
    return got == Lines::kInterrupted ? -1 : 0;
}

}  // namespace qp::net

QP_EXPORT int QORAPrinterNetPingStatus(const char *szIP, char *szStatus, int cbStatus) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szIP) && QP_ARG(((void *)0) != szStatus) && QP_ARG(0 < cbStatus) &&
                          QP_ARG(qp::address_ok(szIP)));
    return QP_GUARD(-1, {
        qp::Pipe ping(QLIBCPopen(qp::tool::kPing, "r", "-w", "1", szIP, static_cast<char *>(nullptr)));
        if (!ping) {
            QP_SET_ERR(ERR_OPEN_FAILED);
            errno = 0;
            return -1;
        }
        const int saved_errno = errno;
        errno = 0;
        const int result = qp::net::ping_read(ping.get(), szStatus, cbStatus);
        ping.close();
        errno = saved_errno;
        return result;
    });
}
