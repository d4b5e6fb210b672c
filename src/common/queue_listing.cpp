#include "queue_listing.hpp"

#include <syslog.h>

#include "frame.hpp"
#include "qorasdk.h"

int qp::scheduler_has_queues(int priority, const char *file, int line) noexcept {
    if (::QLIBServiceIsRunning("cupsd") <= 0) {
        ::syslog(priority, "%s:%d %s is not running.", file, line, "cupsd");
        return 0;
    }
    const int printers = ::QORAPrinterEnumCount(3, nullptr);
    if (printers < 0) {
        ::syslog(LOG_ERR, "%s:%d Failed to Enum Printers." QP_LOWER_FMT, file, line, QP_LOWER_ARGS);
        return -1;
    }
    return printers > 0 ? 1 : 0;
}
