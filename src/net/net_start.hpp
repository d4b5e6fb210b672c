// Starting the network tools whose output the readers of net_scan.hpp take.
#pragma once

#include <errno.h>
#include <stdio.h>
#include <syslog.h>

#include "frame.hpp"
#include "owners.hpp"
#include "paths.hpp"

namespace qp::net {

// "/ADDRESS/", the address as a queue's device URI holds it; cut to the
// buffer: a longer "address" cannot be a queue's host anyway.
struct HostPattern {
    char text[32];
    explicit HostPattern(const char *ip) noexcept { snprintf(text, sizeof text, "/%s/", ip); }
};

// The enterprise walk of an address (SNMPv1, the appliance's community).
inline Pipe snmp_walk(const char *ip) noexcept {
    return Pipe(
        ::QLIBCPopen(tool::kSnmpwalk, "r", "-v", "1", "-c", "tarvel", ip, "enterprises", static_cast<char *>(nullptr)));
}

// True when PIPE holds a started tool; otherwise one line "open failed."
// with the lower call's failure at FILE:LINE, errno 0, and false.
inline bool started(const Pipe &pipe, const char *file, int line) noexcept {
    if (pipe) return true;
    ::syslog(LOG_ERR, "%s:%d open failed. " QP_LOWER_FMT, file, line, QP_LOWER_ARGS);
    errno = 0;
    return false;
}

}  // namespace qp::net

#define QP_STARTED(pipe) ::qp::net::started((pipe), __FILE_NAME__, __LINE__)
