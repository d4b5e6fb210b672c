// QORAPrinterModelDetect: fills the detected maker and model of a USB
// printer's record from its stored device ID string.
//
// Unlike the lenient lookups of QORAPrinterConfStringIdGetVendor and
// friends, this walks the string pair by pair and wants the keys whole and
// in their case: "MFG" or "MANUFACTURER", "MDL" or "MODEL".  The first pair
// of each kind wins.  A field whose key never shows keeps what the caller
// put in it.
#include <cstring>
#include <string_view>

#include "conf/conf_text.hpp"
#include "frame.hpp"
#include "qoraprintergpl.h"
#include "stringid/model_walk.hpp"

namespace qp {

namespace {
constexpr std::size_t kMaxField = 1024;  // the walk's key and value buffers
}

bool scan_devid_pair(std::string_view s, DevIdPair &pair) noexcept {
    const std::size_t colon = s.find(':');
    if (colon == 0 || colon == std::string_view::npos || colon > kMaxField) return false;
    const std::string_view rest = s.substr(colon + 1);
    std::size_t vlen = rest.find(';');
    if (vlen == std::string_view::npos) vlen = rest.size();
    if (vlen > kMaxField) vlen = kMaxField;
    if (vlen == 0) return false;
    pair.key = s.substr(0, colon);
    pair.value = rest.substr(0, vlen);
    pair.length = colon + 1 + vlen;
    return true;
}

DetectedModel walk_devid_pairs(std::string_view s) noexcept {
    DetectedModel found;
    std::size_t pos = 0;
    while (pos < s.size()) {
        DevIdPair pair;
        if (!scan_devid_pair(s.substr(pos), pair)) {
            // Nothing to step by: resume after the next semicolon.
            const std::size_t semi = s.find(';', pos);
            if (semi == std::string_view::npos) break;
            pos = semi + 1;
            continue;
        }
        if (!found.has_maker && (pair.key == "MFG" || pair.key == "MANUFACTURER")) {
            found.maker = pair.value;
            found.has_maker = true;
            if (found.has_model) break;
        } else if (!found.has_model && (pair.key == "MDL" || pair.key == "MODEL")) {
            found.model = pair.value;
            found.has_model = true;
            if (found.has_maker) break;
        }
        // The scan's count is the step, also after a value cut at 1024
        // characters: the next scan starts on the value's tail.
        pos += pair.length;
        if (pos < s.size() && s[pos] == ';') ++pos;
    }
    return found;
}

}  // namespace qp

QP_EXPORT int QORAPrinterModelDetect(PrinterConf *pConf) {
    QP_CHECK_QUIET(-1, pConf != nullptr);
    return QP_GUARD(-1, {
        const std::string printer_id = qp::field_text(pConf->szPrinterId);
        char id[4096] = {};
        if (::QORAPrinterGPLConfStringIdGet(printer_id.c_str(), id, sizeof id, 0) != 0 || id[0] == '\0') {
            QP_SET_ERR(ERR_EXTERNAL_FAILED);
            return -1;
        }
        const qp::DetectedModel found = qp::walk_devid_pairs(std::string_view(id, ::strnlen(id, sizeof id)));
        if (found.has_maker) qp::copy_cut(pConf->szDetectedVendor, found.maker);
        if (found.has_model) qp::copy_cut(pConf->szDetectedModel, found.model);
        return 0;
    });
}
