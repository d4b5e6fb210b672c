// QORAPrinterCupsPrinterEnable: start or stop a queue; "usbprinter1" takes its
// twin "usbprinter" along, always after itself.
#include <stdio.h>
#include <strings.h>

#include "frame.hpp"
#include "names.hpp"
#include "paths.hpp"

namespace {

int run_switch(const char *szProgram, const char *szQueue) {
    int ret = QLIBCExec(szProgram, szQueue, NULL, NULL, NULL);
    if (ret != 0) {
        QP_LOG_ERR("run cmd failed, cmd=[%s %s], ret=%d", szProgram, szQueue, ret);
        return -1;
    }
    return 0;
}

}  // namespace

QP_EXPORT int QORAPrinterCupsPrinterEnable(const char *szCupsPrinterName, int blEnable) {
    QP_CHECK_QUIET(-1, szCupsPrinterName && szCupsPrinterName[0]);
    QP_CHECK_ARGS(-1, QP_ARG(qp::name_ok(szCupsPrinterName, qp::kQueueMax)));
    return QP_GUARD(-1, {
        char name[128];
        snprintf(name, sizeof name, "%s", szCupsPrinterName);
        const char *program = blEnable ? qp::tool::kCupsEnable : qp::tool::kCupsDisable;

        if (run_switch(program, name) != 0) return -1;
        if (strcasecmp(name, "usbprinter1") == 0 && run_switch(program, "usbprinter") != 0) return -1;
        return 0;
    });
}
