// QORAPrinterDevOpen: opens a USB printer's device node read-only.
//
// The printer class driver answers EBUSY while another process holds the
// node (the print backend, a previous notice); that one error is retried.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "frame.hpp"

namespace {

// A ".." component would lead a relative name out of /dev/usb/ or a full
// path out of /dev/.
bool has_parent_component(const char *name) {
    for (const char *p = name; (p = strstr(p, "..")) != nullptr; p += 2) {
        bool starts = (p == name) || p[-1] == '/';
        bool ends = p[2] == '\0' || p[2] == '/';
        if (starts && ends) return true;
    }
    return false;
}

}  // namespace

QP_EXPORT int QORAPrinterDevOpen(const char *szDevName, int iRetry) {
    return QP_GUARD(-1, {
        if (szDevName == nullptr || has_parent_component(szDevName)) {
            QP_LOG_ERR("bad parameter.");
            errno = EINVAL;
            return -1;
        }

        char path[256];
        if (strncmp(szDevName, "/dev/", 5) == 0)
            snprintf(path, sizeof(path), "%s", szDevName);
        else
            snprintf(path, sizeof(path), "/dev/usb/%s", szDevName);

        for (int tries = 0;; ++tries) {
            int fd = open(path, O_RDONLY | O_CLOEXEC);
            if (fd >= 0) return fd;
            if (errno != EBUSY) return -1;
            if (tries >= iRetry) {
                QP_LOG_ERR("%s device open fail reach max, abort.", szDevName);
                errno = EBUSY;
                return -1;
            }
            QP_LOG_DEBUG("%s device busy, retring...", szDevName);
            sleep(1);
            errno = EBUSY;
        }
    });
}
