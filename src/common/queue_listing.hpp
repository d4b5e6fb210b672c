// The scheduler's queue listing ("lpstat -v"), read the same way by every
// function that looks for a queue: at most three runs; a run that cannot
// start is tried again at once; one cut short by a signal, or whose program
// failed, is tried again after a second.
#pragma once

#include <errno.h>
#include <stdio.h>
#include <unistd.h>

#include "owners.hpp"
#include "paths.hpp"
#include "qoracore.h"

namespace qp {

enum class Listing {
    kStopped,   // the visitor stopped at a line
    kComplete,  // every line was read (and, for list_queues, the program ended well)
    kFailed,    // a read was cut short by a signal; for list_queues: no run was read whole
};

// One run's output: hands each line, read in 1024-byte pieces and trimmed,
// to VISIT (bool(const char *)), which answers true to stop there.  errno is
// left as found.
template <class Visit>
Listing read_listing(FILE *out, Visit &&visit) {
    const int saved_errno = errno;
    char line[1024];
    errno = 0;
    while (::fgets(line, sizeof line, out)) {
        ::QLIBCStrTrim(line, 0, 0);
        if (visit(static_cast<const char *>(line))) {
            errno = saved_errno;
            return Listing::kStopped;
        }
        errno = 0;
    }
    const bool interrupted = errno == EINTR;
    errno = saved_errno;
    return interrupted ? Listing::kFailed : Listing::kComplete;
}

// Runs "lpstat -v" and reads it with read_listing.  What VISIT keeps across
// runs is its own affair: a later run shows it the lines again.
template <class Visit>
Listing list_queues(Visit &&visit) {
    constexpr int kRuns = 3;
    for (int run = 0; run < kRuns; ++run) {
        Pipe lpstat(::QLIBCPopen(tool::kLpstat, "r", "-v", static_cast<char *>(nullptr)));
        if (!lpstat) continue;  // could not start: no pause
        const Listing got = read_listing(lpstat.get(), visit);
        const int closed = lpstat.close();
        if (got != Listing::kFailed && closed >= 0) return got;
        ::sleep(1);
    }
    return Listing::kFailed;
}

}  // namespace qp
