// QORAPrinterProcUsbtabIdEnum: appends the printer IDs of the attached USB
// printers to the caller's list.  A device whose information cannot be read
// is skipped; the enumeration still succeeds.
#include <stdlib.h>
#include <string.h>

#include "frame.hpp"
#include "owners.hpp"
#include "qorausb.h"

namespace {

constexpr unsigned char kPrinterTypes = 12;

}  // namespace

QP_EXPORT int QORAPrinterProcUsbtabIdEnum(PQLIBSZLIST *ppList) {
    QP_CHECK_QUIET(-1, ppList != nullptr && *ppList != nullptr);
    return QP_GUARD(-1, {
        qp::MallocPtr<char *> names;
        int count = 0;
        if (QORAPrinterUsbtabEnum(names.addr(), &count) < 0) {
            QP_LOG_ERR("Enum printer from usbtab failed");
            return -1;
        }

        for (int i = 0; i < count; ++i) {
            const char *name = names.get()[i];
            if (name == nullptr) break;
            QORAUSB_DEV_INFO info;
            memset(&info, 0, sizeof(info));
            if (QORAUSBDevGetInfo(name, &info) < 0) {
                QP_LOG_ERR("get printer info failed, printer=%s", name);
                continue;
            }
            info.szPrinterId[sizeof(info.szPrinterId) - 1] = '\0';
            if ((info.ucType & kPrinterTypes) != 0 && info.szPrinterId[0] != '\0')
                QLIBCSzListPush(ppList, info.szPrinterId);
        }
        return 0;
    });
}
