// QORAPrinterCupsPrintFile: submit a file to the printer's queue with lpr.
#include <stdio.h>

#include "cups/cups_argv.hpp"
#include "frame.hpp"
#include "names.hpp"
#include "paths.hpp"

QP_EXPORT int QORAPrinterCupsPrintFile(const char *szPrinterId, const char *szFile, const char *szTitle, int blRemove) {
    QP_CHECK_QUIET(-1, szPrinterId && szFile);
    // lpr takes the file as its last argument: a regular file whose name
    // cannot be read as an option.
    QP_CHECK_ARGS(-1, QP_ARG(qp::print_file_ok(szFile)));
    return QP_GUARD(-1, {
        char queue[32] = {0};
        if (qp::stored_queue_name(szPrinterId, queue, sizeof queue) != 0) {
            QP_LOG_ERR("cannot get cups printer name, printer=%s", szPrinterId);
            return -1;
        }

        qp::ArgList args;
        args.add(qp::tool::kLpr).add("-P").add(queue);
        if (blRemove == 1) args.add("-r");
        if (szTitle && szTitle[0]) args.add("-T").add(szTitle);
        args.add(szFile);

        int ret = QLIBCExecv(qp::tool::kLpr, args.argv(), 1);
        if (ret != 0) {
            QP_SET_ERR(ERR_EXTERNAL_FAILED);
            QP_LOG_ERR("execv error, cmd=%s, ret=%d", qp::tool::kLpr, ret);
            return -1;
        }
        return 0;
    });
}
