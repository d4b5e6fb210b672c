// The scheduler's queue listing ("lpstat -v"), read the same way by every
// function that looks for a queue: at most three runs; a run that cannot
// start is tried again at once; one cut short by a signal, or whose program
// failed, is tried again after a second.
#pragma once

#include <errno.h>
#include <stdio.h>
#include <string.h>
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

// A visitor that asks whether a queue's first line holds NEEDLE: ABOUT
// (bool(const char *line)) tells the queue's lines.  ANSWER is 1 when the
// first of them holds NEEDLE, 2 when it does not, 0 while none was seen.
template <class About>
struct FirstLineHolds {
    About about;
    const char *needle;
    int answer = 0;
    bool operator()(const char *line) {
        if (!about(line)) return false;
        answer = strstr(line, needle) ? 1 : 2;
        return true;
    }
};
template <class About>
FirstLineHolds<About> first_line_holds(About about, const char *needle) {
    return FirstLineHolds<About>{about, needle};
}

// The visitor's answer after the listing GOT, or -1 when none was read whole.
template <class About>
int answer_after(Listing got, const FirstLineHolds<About> &visit) {
    return got == Listing::kFailed ? -1 : visit.answer;
}

// Whether the scheduler has a queue to look at: 1 when it runs and has one;
// 0 when it has none, or is not running (logged at PRIORITY); -1 when its
// queues cannot be counted (logged at LOG_ERR).  The lines carry FILE:LINE.
int scheduler_has_queues(int priority, const char *file, int line) noexcept;

}  // namespace qp

#define QP_SCHEDULER_HAS_QUEUES(priority) ::qp::scheduler_has_queues((priority), __FILE_NAME__, __LINE__)
