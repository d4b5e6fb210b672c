// The call frame shared by every exported function: argument checks, the
// error slot, log lines and the guard that keeps exceptions off the C ABI.
//
// Every log line begins with "<file>:<line> ", the basename of the source
// file that logs it; the error slot records the same place.
#pragma once

#include <syslog.h>

#include <new>

#include "qoracore.h"
#include "qoraprinter.h"

#ifndef __FILE_NAME__
#error "the compiler must provide __FILE_NAME__"
#endif

#define QP_EXPORT extern "C" __attribute__((visibility("default")))

// Log one line "file:line text" at a priority.
#define QP_LOG(pri, fmt, ...) ::syslog((pri), "%s:%d " fmt, __FILE_NAME__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
#define QP_LOG_ERR(fmt, ...) QP_LOG(LOG_ERR, fmt __VA_OPT__(, ) __VA_ARGS__)
#define QP_LOG_DEBUG(fmt, ...) QP_LOG(LOG_DEBUG, fmt __VA_OPT__(, ) __VA_ARGS__)

// Record an error code with this file and line.
#define QP_SET_ERR(code) ::QLIBCErrSetEx((code), __FILE_NAME__, __LINE__)

// The suffix naming a lower call's failure, and its three arguments.
#define QP_LOWER_FMT "[0x%04X %s:%d]"
#define QP_LOWER_ARGS ::QLIBCErrGet(), ::qp::slot_file(), ::QLIBCErrorGetLine()
// The lower call's code alone, "(0x%04X)".
#define QP_CODE_FMT "(0x%04X)"

// Argument checks.  All checks of one function share one line:
//
//   QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szIP) && QP_ARG(0 != szIP[0]));
//
// The checks run left to right and stop at the first that fails; its text
// (the condition exactly as written) goes into the one message logged.
#define QP_ARG(cond) (qp_failed_check_ = #cond, static_cast<bool>(cond))
#define QP_CHECK_ARGS(failval, checks)                                         \
    do {                                                                       \
        const char *qp_failed_check_ = nullptr;                                \
        if (!(checks)) {                                                       \
            ::qp::log_bad_argument(__FILE_NAME__, __LINE__, qp_failed_check_); \
            return (failval);                                                  \
        }                                                                      \
    } while (0)

// A check without a message: sets 0x0D00 and returns.
#define QP_CHECK_QUIET(failval, cond)      \
    do {                                   \
        if (!(cond)) {                     \
            QP_SET_ERR(ERR_BAD_PARAMETER); \
            return (failval);              \
        }                                  \
    } while (0)

namespace qp {

// Logs "%s:%d Invaild Argument (%s)=[%d]\n" and sets 0x0D00 at that place.
void log_bad_argument(const char *file, int line, const char *check) noexcept;

// The slot's file name, never NULL (for the "%s" of a log line).
const char *slot_file() noexcept;

// Runs the body of an exported function; an exception that escapes it
// (only std::bad_alloc is expected) becomes 0x0200 and the failure value.
template <class R, class F>
R guard(R failval, const char *file, int line, F &&body) noexcept {
    try {
        return body();
    } catch (...) {
        ::QLIBCErrSetEx(ERR_OUT_OF_MEMORY, file, line);
    }
    return failval;
}

}  // namespace qp

#define QP_GUARD(failval, ...) ::qp::guard((failval), __FILE_NAME__, __LINE__, [&]() __VA_ARGS__)
