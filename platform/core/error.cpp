// The error slot: one per thread, so a caller reads the failure of its own
// last call even while other threads of the process fail too.
#include "core_internal.hpp"

#include <string.h>

namespace {

struct ErrorSlot {
    unsigned int code = 0;
    char file[128] = "";
    int line = 0;
};

thread_local ErrorSlot t_slot;

}  // namespace

extern "C" QLIBC_API void QLIBCErrSetEx(unsigned int uCode, const char *szFile, int iLine) {
    t_slot.code = uCode;
    // Copied, not kept as a pointer: the string may live in a library that is
    // unloaded before the slot is read.
    if (szFile) {
        size_t n = strnlen(szFile, sizeof t_slot.file - 1);
        memcpy(t_slot.file, szFile, n);
        t_slot.file[n] = '\0';
    } else {
        t_slot.file[0] = '\0';
    }
    t_slot.line = iLine;
}

extern "C" QLIBC_API unsigned int QLIBCErrGet(void) { return t_slot.code; }

extern "C" QLIBC_API const char *QLIBCErrorGetFile(void) { return t_slot.file; }

extern "C" QLIBC_API int QLIBCErrorGetLine(void) { return t_slot.line; }
