// QORAPrinterNetGetStringBackend: how CUPS reaches the printer at an address,
// from the first device URI among the string values of its private-enterprise
// subtree (a line such as
//   SNMPv2-SMI::enterprises.2699.1.2.1.3.1.1.4.1.1 = STRING: "ipp://10.0.0.2/ipp/print"
// gives the backend "ipp" and the queue "ipp").
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include <algorithm>

#include "frame.hpp"
#include "names.hpp"
#include "net/net_scan.hpp"
#include "net/net_start.hpp"
#include "owners.hpp"
#include "paths.hpp"

namespace qp::net {

namespace {

bool starts_nocase(std::string_view s, std::string_view prefix) {
    return s.size() >= prefix.size() && strncasecmp(s.data(), prefix.data(), prefix.size()) == 0;
}

}  // namespace

UriLine uri_line(std::string_view line, std::string_view *candidate) {
    if (line.find("://") == std::string_view::npos) return UriLine::kSkip;
    const size_t quote = line.find('"');
    if (quote == std::string_view::npos) return UriLine::kStop;
    const std::string_view text = line.substr(quote + 1);
    if (text.size() < 2) return UriLine::kStop;
    for (std::string_view prefix : {"LPR", "lpd", "ipp", "socket", "bjnp"}) {
        if (starts_nocase(text, prefix)) {
            *candidate = text;
            return UriLine::kSelect;
        }
    }
    return UriLine::kSkip;
}

int uri_read(FILE *walk, char *szUri, int cbUri) {
    int result = 1;
    const Lines got = each_line(walk, [&](char *line) {
        std::string_view candidate;
        switch (uri_line(line, &candidate)) {
            case UriLine::kSkip:
                return false;
            case UriLine::kStop:
                result = -1;
                return true;
            case UriLine::kSelect:
                break;
        }
        if (cbUri <= 0) {
            result = -1;
            return true;
        }
        // Drop the closing quote; the candidate is at least 2 characters long.
        const size_t n = std::min(candidate.size() - 1, static_cast<size_t>(cbUri) - 1);
        memcpy(szUri, candidate.data(), n);
        szUri[n] = '\0';
        result = 0;
        return true;
    });
    return got == Lines::kInterrupted ? -1 : result;
}

int uri_split(char *szUri, char *szBackend, int iBackendSize, char *szQName, int iQNameSize) {
    // The scheme is the text before the first colon; a URI without a colon
    // has no remainder, and the tokeniser refuses the absent text, which
    // fails the query with the tokeniser's own error.
    const char *remainder = nullptr;
    if (char *colon = strchr(szUri, ':')) {
        *colon = '\0';
        remainder = colon + 1;
    }
    const char *scheme = szUri;
    if (strcasecmp(scheme, "LPR") == 0) {
        if (iBackendSize > 0) snprintf(szBackend, static_cast<size_t>(iBackendSize), "%s", "lpd");
    } else if (strcasecmp(scheme, "lpd") == 0 || strcasecmp(scheme, "ipp") == 0 || strcasecmp(scheme, "socket") == 0 ||
               strcasecmp(scheme, "bjnp") == 0) {
        if (iBackendSize > 0) QLIBCStrCaseLower(scheme, 0, szBackend, iBackendSize);
    } else {
        QP_LOG_ERR("Fetch network printer protocol and queue name error." QP_LOWER_FMT, QP_LOWER_ARGS);
        return -1;
    }

    qp::List pieces(1024);
    if (!pieces) {
        QP_LOG_ERR("Failed to QLIBCSzListAlloc" QP_LOWER_FMT, QP_LOWER_ARGS);
        QP_SET_ERR(ERR_OUT_OF_MEMORY);
        QP_LOG_ERR("Fetch network printer protocol and queue name error." QP_LOWER_FMT, QP_LOWER_ARGS);
        return -1;
    }
    if (QLIBCStrTok(remainder, "/", pieces.addr()) < 0) {
        QP_LOG_ERR("Failed to QLIBCStrTok" QP_LOWER_FMT, QP_LOWER_ARGS);
        QP_LOG_ERR("Fetch network printer protocol and queue name error." QP_LOWER_FMT, QP_LOWER_ARGS);
        return -1;
    }
    // Piece 0 is the host (and port); only the first path segment counts.
    if (iQNameSize > 0) {
        if (pieces.size() > 1) {
            snprintf(szQName, static_cast<size_t>(iQNameSize), "%s", pieces.at(1));
        } else {
            szQName[0] = '\0';
        }
    }
    return 0;
}

}  // namespace qp::net

QP_EXPORT int QORAPrinterNetGetStringBackend(const char *szIP, char *szBackend, int iBackendSize, char *szQName,
                                             int iQNameSize) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szIP) && QP_ARG(((void *)0) != szBackend) && QP_ARG(NULL != szQName) &&
                          QP_ARG(qp::address_ok(szIP)));
    return QP_GUARD(-1, {
        qp::Pipe walk = qp::net::snmp_walk(szIP);
        if (!QP_STARTED(walk)) return -1;
        const int saved_errno = errno;
        errno = 0;

        char uri[qp::net::kLineSize] = {};
        const int found = qp::net::uri_read(walk.get(), uri, sizeof uri);
        walk.close();
        if (found != 0) {
            errno = saved_errno;
            return found;
        }

        const int split = qp::net::uri_split(uri, szBackend, iBackendSize, szQName, iQNameSize);
        errno = saved_errno;
        return split;
    });
}
