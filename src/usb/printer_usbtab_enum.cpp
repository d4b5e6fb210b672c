// QORAPrinterUsbtabEnum: the device names of the attached USB printers, as
// the USB library lists them from /tmp/usbtab.
//
// The list is one heap block (pointers, then the names) that the caller
// frees with one free().  A block already in *ppDevNames is replaced.
#include <stdlib.h>

#include "frame.hpp"
#include "qorausb.h"

namespace {

constexpr unsigned int kPrinterTypes = 12;  // uni- and bidirectional printers

}  // namespace

QP_EXPORT int QORAPrinterUsbtabEnum(char ***ppDevNames, int *piCount) {
    QP_CHECK_QUIET(-1, ppDevNames != nullptr && piCount != nullptr);
    return QP_GUARD(-1, {
        int size = 0;
        if (QORAUSBDevEnum(kPrinterTypes, nullptr, 0, &size) >= 0) {
            free(*ppDevNames);
            if (size < static_cast<int>(sizeof(char *))) size = static_cast<int>(sizeof(char *));
            *ppDevNames = static_cast<char **>(calloc(1, static_cast<size_t>(size)));
            if (*ppDevNames == nullptr) {
                QP_SET_ERR(ERR_OUT_OF_MEMORY);
            } else {
                int needed = 0;
                *piCount = QORAUSBDevEnum(kPrinterTypes, *ppDevNames, size, &needed);
                if (*piCount >= 0) return 0;
                QP_LOG_ERR("Failed to enum USB device from usbtab.");
            }
        } else {
            QP_LOG_ERR("Failed to enum USB device from usbtab.");
        }

        free(*ppDevNames);
        *ppDevNames = nullptr;
        return -1;
    });
}
