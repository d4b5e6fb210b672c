// The scheduler's queue listing ("lpstat -v"), read the same way by every
// function that looks for a queue: at most three runs; a run that cannot
// start is tried again at once; one cut short by a signal, or whose program
// failed, is tried again after a second.
#pragma once

#include <errno.h>
#include <stdio.h>
#include <unistd.h>

#include "owners.hpp"
#include "qoracore.h"
#include "paths.hpp"

namespace qp {

enum class Listing {
    kStopped,   // the visitor stopped at a line
    kComplete,  // every line was read and the program ended well
    kFailed,    // no run was read whole
};

// Hands each line of the listing, trimmed, to VISIT (bool(const char *)),
// which answers true to stop there.  What VISIT keeps across runs is its own
// affair: a later run shows it the lines again.  errno is left as found.
template <class Visit>
Listing list_queues(Visit &&visit) {
    constexpr int kRuns = 3;
    for (int run = 0; run < kRuns; ++run) {
        Pipe lpstat(::QLIBCPopen(qp::tool::kLpstat, "r", "-v", static_cast<char *>(nullptr)));
        if (!lpstat) continue;  // could not start: no pause
        const int saved_errno = errno;
        char line[1024];
        bool stopped = false;
        errno = 0;
        while (!stopped && ::fgets(line, sizeof line, lpstat.get())) {
            ::QLIBCStrTrim(line, 0, 0);
            stopped = visit(static_cast<const char *>(line));
            errno = 0;
        }
        const bool interrupted = !stopped && errno == EINTR;
        errno = saved_errno;
        const int closed = lpstat.close();
        if (!interrupted && closed >= 0) return stopped ? Listing::kStopped : Listing::kComplete;
        ::sleep(1);
    }
    return Listing::kFailed;
}

}  // namespace qp
