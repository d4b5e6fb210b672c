#include "conf_store.hpp"

#include <syslog.h>

#include "paths.hpp"

namespace qp {

int store_section(const char *section, PQLIBSZHASH hash, const char *file, int line) noexcept {
    const int added = ::QLIBCFileAddSection(path::kPrinterConf, section, hash, fmt::kSectionEntry);
    if (added < 0) {
        ::syslog(LOG_ERR, "%s:%d QLIBCFileAddSection failed.(0x%04X)", file, line, ::QLIBCErrGet());
        return added;
    }
    if (added == 0 && ::QLIBCFileSetSection(path::kPrinterConf, section, section, hash, fmt::kSectionEntry) < 1) {
        ::syslog(LOG_ERR, "%s:%d QLIBCFileSetSection failed.(0x%04X)", file, line, ::QLIBCErrGet());
        return -1;
    }
    return 0;
}

}  // namespace qp
