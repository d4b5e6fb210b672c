// QORAPrinterNetGetStringId: the IEEE 1284 device ID string of the printer at
// an address, found by walking its private-enterprise subtree.
//
// snmpwalk prints one object per line, a string as
//   SNMPv2-SMI::enterprises.2699.1.2.1.2.1.1.3.1 = STRING: "MFG:ACME;MDL:X1;"
// The first line naming a maker key and a model key and holding a quoted
// string is taken; the walk is abandoned there, so a printer with a large MIB
// answers as soon as its device ID has gone by.
#include <errno.h>
#include <string.h>

#include "frame.hpp"
#include "names.hpp"
#include "net/net_scan.hpp"
#include "net/net_start.hpp"
#include "owners.hpp"
#include "paths.hpp"

namespace qp::net {

namespace {

constexpr std::string_view kMarker = "STRING: \"";

bool holds(std::string_view s, std::string_view what) { return s.find(what) != std::string_view::npos; }

}  // namespace

bool string_id_value(std::string_view line, std::string_view *value) {
    if (line.empty()) return false;
    if (!holds(line, "MANUFACTURER:") && !holds(line, "MFG:") && !holds(line, "MFR:")) return false;
    if (!holds(line, "MODEL:") && !holds(line, "MDL:")) return false;
    const size_t at = line.find(kMarker);
    if (at == std::string_view::npos) return false;
    const std::string_view rest = line.substr(at + kMarker.size());
    // A line that ends right at the marker has no closing quote to drop and
    // carries no value: it is passed over like any other line.
    if (rest.empty()) return false;
    *value = rest.substr(0, rest.size() - 1);
    return true;
}

int string_id_read(FILE *walk, char *szOutBuf, int iOutSize) {
    bool seen = false;
    int result = -1;
    const Lines got = each_line(walk, [&](char *line) {
        seen = true;
        std::string_view value;
        if (!string_id_value(line, &value)) return false;
        if (iOutSize <= 0 || value.size() >= static_cast<size_t>(iOutSize)) {
            QP_SET_ERR(ERR_VALUE_TOO_LONG);
            return true;
        }
        memcpy(szOutBuf, value.data(), value.size());
        szOutBuf[value.size()] = '\0';
        result = 0;
        return true;
    });
    // Silence means no agent answered with this community.
    if (got == Lines::kEnd && !seen) return 1;
    return got == Lines::kStopped ? result : -1;
}

}  // namespace qp::net

QP_EXPORT int QORAPrinterNetGetStringId(const char *szIP, char *szOutBuf, int iOutSize) {
    const int saved_errno = errno;
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szIP) && QP_ARG(((void *)0) != szOutBuf) && QP_ARG(0 < iOutSize) &&
                          QP_ARG(qp::address_ok(szIP)));
    return QP_GUARD(-1, {
        memset(szOutBuf, 0, static_cast<size_t>(iOutSize));
        qp::Pipe walk = qp::net::snmp_walk(szIP);
        if (!QP_STARTED(walk)) {
            errno = saved_errno;
            return -1;
        }
        const int result = qp::net::string_id_read(walk.get(), szOutBuf, iOutSize);
        walk.close();
        errno = saved_errno;
        return result;
    });
}
