// The stored device ID string of a printer, from its printer.conf section.
#include "qoracore.h"
#include "qoraprintergpl.h"

#define GPL_FAIL(code) QLIBCErrSetEx((code), __FILE_NAME__, __LINE__)

namespace {
constexpr const char *kPrinterConf = "/usr/qora/etc/printer.conf";
constexpr const char *kStringIdKey = "usblp string id";
}  // namespace

extern "C" QORAPRINTERGPL_API int QORAPrinterGPLConfStringIdGet(const char *szPrinterId, char *szBuf, int cbBuf,
                                                                int iFlags) {
    (void)iFlags;
    if (!szPrinterId || !*szPrinterId || !szBuf || cbBuf <= 0) {
        GPL_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    // An empty stored value is still an answer (0): the caller decides what an
    // empty device ID string means.
    if (QLIBCFileGetSectionValue(kPrinterConf, szPrinterId, kStringIdKey, szBuf, cbBuf) < 0) {
        szBuf[0] = '\0';
        return -1;  // the core library set the slot
    }
    return 0;
}
