// QORAPrinterPrinterConfUnlock: releases the configuration lock by closing
// the descriptor that QORAPrinterPrinterConfLock handed out.
#include <unistd.h>

#include "frame.hpp"

QP_EXPORT int QORAPrinterPrinterConfUnlock(int fdLock) {
    QP_CHECK_ARGS(0, QP_ARG(0 <= fdLock));
    return QP_GUARD(0, {
        // Linux releases the descriptor even when close reports EINTR, so a
        // retry could close a descriptor another thread has just been given.
        return ::close(fdLock) == 0 ? 1 : 0;
    });
}
