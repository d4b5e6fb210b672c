// QORAPrinterNetCupsRm: remove a network printer's queue by its stored name.
// A network queue's URI does not carry the printer ID, so there is nothing
// to check it against.
#include "frame.hpp"
#include "names.hpp"

QP_EXPORT int QORAPrinterNetCupsRm(const char *szPrinterId) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szPrinterId) && QP_ARG(0 != szPrinterId[0]));
    return QP_GUARD(-1, {
        char name[128] = {0};
        if (qp::stored_queue_name(szPrinterId, name, sizeof name) != 0) {
            QP_LOG_ERR("cannot find cups printer name, printer=%s" QP_LOWER_FMT, szPrinterId, QP_LOWER_ARGS);
            return -1;
        }
        return QORAPrinterCupsRmByName(name);
    });
}
