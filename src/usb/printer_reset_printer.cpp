// QORAResetPrinter: sends the printer class driver's soft reset.
//
// On this driver the soft reset is request number 9; number 7 is the
// detach notice and must not be sent here.
#include <errno.h>
#include <string.h>
#include <sys/ioctl.h>

#include "frame.hpp"
#include "owners.hpp"

namespace {

constexpr unsigned long kLpiocSoftReset = 0x5009UL;  // 'P' 9, no data

}  // namespace

QP_EXPORT int QORAResetPrinter(const char *szDevName) {
    return QP_GUARD(-1, {
        qp::UniqueFd fd(QORAPrinterDevOpen(szDevName, 8));
        if (!fd.valid()) {
            int err = errno;
            QP_LOG_ERR("open device [%s] error:(%d) %s", szDevName ? szDevName : "(null)", err, strerror(err));
            return -1;
        }
        if (ioctl(fd.get(), kLpiocSoftReset) != 0) {
            int err = errno;
            QP_LOG_ERR("ioctl LPIOC_SOFT_RESET error:(%d) %s", err, strerror(err));
            return -1;
        }
        return 0;
    });
}
