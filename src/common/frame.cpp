// The frame's out-of-line pieces: the argument message and slot access.
#include "frame.hpp"

namespace qp {

void log_bad_argument(const char *file, int line, const char *check) noexcept {
    ::syslog(LOG_ERR, "%s:%d Invaild Argument (%s)=[%d]\n", file, line, check ? check : "", 0);
    ::QLIBCErrSetEx(ERR_BAD_PARAMETER, file, line);
}

const char *slot_file() noexcept {
    const char *f = ::QLIBCErrorGetFile();
    return f ? f : "";
}

}  // namespace qp
