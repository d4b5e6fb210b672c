// QORAPrinterCupsJobWaitComplete: is a job still in the printer's queue?
//
// 0: no line of "lpq -P QUEUE" names the job; 1: a line names it (answered
// at once, without waiting for the job); -1: failure.  The job ID is looked
// for as a plain substring of every line, header lines included, so "1" is
// also found in "1024 bytes".
//
// A listing that ends in a read error, or whose lpq cannot be reaped, is
// taken again after a second, at most kMaxPasses times in all; the call then
// answers what the last pass gave (-1 after a read error, 0 after a complete
// listing).  If lpq cannot be started on a later pass, the previous pass's
// answer stands.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "cups/cups_scan.hpp"
#include "frame.hpp"
#include "names.hpp"
#include "owners.hpp"
#include "paths.hpp"
#include "qorasdk.h"

namespace {

constexpr int kMaxPasses = 5;

}  // namespace

namespace qp::cups {

LpqScan lpq_job_scan(FILE *pPipe, const char *szJobId) {
    const int saved_errno = errno;
    LpqScan scan = LpqScan::kEnd;
    qp::MallocPtr<char> line;
    size_t cap = 0;
    for (;;) {
        errno = 0;
        if (getline(line.addr(), &cap, pPipe) < 0) {
            if (ferror(pPipe)) scan = LpqScan::kReadError;
            break;
        }
        if (strstr(line.get(), szJobId)) {
            scan = LpqScan::kListed;
            break;
        }
    }
    errno = saved_errno;
    return scan;
}

}  // namespace qp::cups

QP_EXPORT int QORAPrinterCupsJobWaitComplete(const char *szPrinterId, const char *szJobId) {
    QP_CHECK_QUIET(-1, szPrinterId && szJobId);
    return QP_GUARD(-1, {
        char queue[32] = {0};
        if (qp::stored_queue_name(szPrinterId, queue, sizeof queue) != 0) {
            QP_LOG_ERR("get cups printer name failed, printer=%s", szPrinterId);
            return -1;
        }
        if (!QLIBServiceIsRunning("cupsd")) {
            QP_LOG_ERR("%s is not running.", "cupsd");
            return -1;
        }

        int result = -1;
        for (int pass = 0; pass < kMaxPasses; ++pass) {
            if (pass > 0) sleep(1);
            qp::Pipe pipe(QLIBCPopen(qp::tool::kLpq, "r", "-P", queue, (char *)NULL));
            if (!pipe) {
                QP_LOG_ERR("open failed. " QP_LOWER_FMT, QP_LOWER_ARGS);
                return result;
            }

            const qp::cups::LpqScan scan = qp::cups::lpq_job_scan(pipe.get(), szJobId);
            if (scan == qp::cups::LpqScan::kListed) {
                QP_LOG_ERR("CheckJobIdInQueue failed. (%m)");
                pipe.close();
                return 1;
            }
            if (scan == qp::cups::LpqScan::kReadError) {
                pipe.close();
                result = -1;
                continue;
            }
            if (pipe.close() >= 0) return 0;
            result = 0;
        }
        return result;
    });
}
