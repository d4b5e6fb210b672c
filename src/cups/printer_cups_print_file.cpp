// QORAPrinterCupsPrintFile: submit a file to the printer's queue with lpr.
#include <stdio.h>

#include "cups/cups_argv.hpp"
#include "frame.hpp"
#include "names.hpp"

QP_EXPORT int QORAPrinterCupsPrintFile(const char *szPrinterId, const char *szFile, const char *szTitle,
                                       int blRemove) {
    return QP_GUARD(-1, {
        QP_CHECK_QUIET(-1, szPrinterId && szFile);
        // lpr takes the file as its last argument: a regular file whose name
        // cannot be read as an option.
        QP_CHECK_ARGS(-1, QP_ARG(qp::print_file_ok(szFile)));

        char queue[32] = {0};
        if (qp::stored_queue_name(szPrinterId, queue, sizeof queue) != 0) {
            QP_LOG_ERR("cannot get cups printer name, printer=%s", szPrinterId);
            return -1;
        }

        qp::ArgVec<8> argv;
        size_t next = 3;
        bool ok = argv.set(0, "/usr/bin/lpr") && argv.set(1, "-P") && argv.set(2, queue);
        if (ok && blRemove == 1) ok = argv.set(next++, "-r");
        if (ok && szTitle && szTitle[0]) {
            ok = argv.set(next, "-T") && argv.set(next + 1, szTitle);
            next += 2;
        }
        if (!ok || !argv.set(next, szFile)) {
            QP_SET_ERR(ERR_OUT_OF_MEMORY);
            return -1;
        }

        int ret = QLIBCExecv("/usr/bin/lpr", argv.argv(), 1);
        if (ret != 0) {
            QP_SET_ERR(ERR_EXTERNAL_FAILED);
            QP_LOG_ERR("execv error, cmd=%s, ret=%d", "/usr/bin/lpr", ret);
            return -1;
        }
        return 0;
    });
}
