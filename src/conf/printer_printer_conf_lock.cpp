// QORAPrinterPrinterConfLock: takes the lock that serialises every writer of
// printer.conf across processes.
//
// The core library answers at once when another process holds the lock, so
// the waiting is done here: 100 tries 50 ms apart, about 5 s in all, after
// which the writer gives up and the file stays as it is.
#include <unistd.h>

#include "frame.hpp"
#include "paths.hpp"

namespace {
constexpr int kTries = 100;
constexpr useconds_t kPauseUs = 50 * 1000;
}  // namespace

QP_EXPORT int QORAPrinterPrinterConfLock(void) {
    return QP_GUARD(-1, {
        for (int i = 0; i < kTries; ++i) {
            int fd = -1;
            if (::QLIBCFileLockByFile(qp::path::kConfLock, 1, &fd) == 1) return fd;
            ::usleep(kPauseUs);
        }
        // A core library that left a descriptor number behind on a failed try
        // must not make this look like success: the caller tests for negative.
        return -1;
    });
}
