// QORAPrinterGetStringId: reads a USB printer's IEEE 1284 device ID string
// from its device node.
//
// The reply starts with a 16-bit big-endian length that counts its own two
// bytes; the text after it ends at the driver's NUL or at the end of the
// reply buffer.  The length is only reported back, never used to index the
// buffer: a device may claim up to 0xFFFF bytes.
#include <errno.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "frame.hpp"
#include "owners.hpp"

namespace {

constexpr unsigned long kLpiocGetDeviceId = 0x8FFF5001UL;  // 'P' 1, read, 4095 bytes
constexpr int kReplySize = 4095;
constexpr int kTries = 8;

}  // namespace

QP_EXPORT int QORAPrinterGetStringId(const char *szDevName, char *szBuf, int cbBuf) {
    return QP_GUARD(-1, {
        // Callers pass a name, a buffer and a positive size; a missing buffer is
        // refused before the device is touched rather than written through.
        if (szBuf == nullptr || cbBuf <= 0) return -1;

        qp::UniqueFd fd(QORAPrinterDevOpen(szDevName, kTries));
        if (!fd.valid()) {
            int err = errno;
            QP_LOG_DEBUG("open device [%s] error:(%d) %s", szDevName ? szDevName : "(null)", err, strerror(err));
            return -1;
        }

        unsigned char reply[kReplySize];
        memset(reply, 0, sizeof(reply));

        int rc = -1;
        for (int failed = 0; failed < kTries; ++failed) {
            rc = ioctl(fd.get(), kLpiocGetDeviceId, reply);
            if (rc == 0) break;
            int err = errno;
            QP_LOG_ERR("ioctl LPIOC_GET_DEVICE_ID error:(%d) %s, retry: %d", err, strerror(err), failed);
            sleep(1);
            errno = err;
        }
        if (rc < 0) {
            int err = errno;
            QP_LOG_ERR("ioctl LPIOC_GET_DEVICE_ID error:(%d) %s", err, strerror(err));
            return -1;
        }

        int length = (reply[0] << 8) | reply[1];
        const char *text = reinterpret_cast<const char *>(reply + 2);
        size_t n = strnlen(text, kReplySize - 2);
        if (n > static_cast<size_t>(cbBuf - 1)) n = static_cast<size_t>(cbBuf - 1);
        memcpy(szBuf, text, n);
        szBuf[n] = '\0';

        return length > cbBuf ? length : 0;
    });
}
