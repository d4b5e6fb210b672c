// QORAPrinterEnumCount: counts, and optionally lists, the printer IDs of the
// USB printers (flag 1) and the network printers (flag 2), USB first.
#include "frame.hpp"
#include "owners.hpp"

QP_EXPORT int QORAPrinterEnumCount(int iFlags, PQLIBSZLIST *ppList) {
    return QP_GUARD(-1, {
        qp::List list(256);
        if (!list) {
            QP_SET_ERR(ERR_OUT_OF_MEMORY);
            return -1;
        }
        if ((iFlags & 1) != 0 && QORAPrinterProcUsbtabIdEnum(list.addr()) < 0) {
            QP_LOG_ERR("enum USB printer id failed" QP_LOWER_FMT, QP_LOWER_ARGS);
            return -1;
        }
        if ((iFlags & 2) != 0 && QORAPrinterNetNptabEnum(list.addr()) < 0) {
            QP_LOG_ERR("enum network printer id failed" QP_LOWER_FMT, QP_LOWER_ARGS);
            return -1;
        }

        int count = list.size();
        if (ppList != nullptr) {
            QLIBCSzListFree(*ppList);
            *ppList = list.release();
        }
        return count;
    });
}
