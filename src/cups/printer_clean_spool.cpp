// QORAPrinterCleanSpool: cancel all jobs and empty the share's spool
// directory.  The pattern is handed to rm as one argument; the core
// library's runner expands it.
#include "frame.hpp"
#include "paths.hpp"

QP_EXPORT int QORAPrinterCleanSpool(void) {
    return QP_GUARD(-1, {
        // lprm of this print service answers 'unknown destination "all"' and
        // exits 1; that is logged and the clean-up goes on.
        if (QLIBCExec("/usr/bin/lprm", "all", NULL, NULL, NULL) != 0)
            QP_LOG_ERR("lprm all failed. " QP_LOWER_FMT, QP_LOWER_ARGS);

        if (QLIBCExec("/bin/rm", "-rf", "/var/services/printer/*.*", NULL, NULL) != 0) {
            QP_LOG_ERR("remove %s failed. " QP_LOWER_FMT, qp::path::kSpool, QP_LOWER_ARGS);
            return -1;
        }
        return 0;
    });
}
