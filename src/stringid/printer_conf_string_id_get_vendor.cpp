// QORAPrinterConfStringIdGetVendor: the maker in an IEEE 1284 device ID string.
//
// Printers name the field differently; the aliases are tried in a fixed
// order and the first one present wins, wherever it stands in the string.
// Arguments are checked by the parse, once per alias.
#include "frame.hpp"

QP_EXPORT int QORAPrinterConfStringIdGetVendor(char *szStringId, char *szBuf, int cbBuf) {
    return QP_GUARD(-1, {
        static constexpr const char *kKeys[] = {"MANUFACTURER:", "MFG:", "MFR:"};
        for (const char *key : kKeys)
            if (::QORAPrinterConfStringIdParse(szStringId, key, szBuf, cbBuf) == 0) return 0;
        return -1;
    });
}
