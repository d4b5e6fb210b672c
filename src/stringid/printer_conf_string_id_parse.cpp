// QORAPrinterConfStringIdParse: the value of one key in an IEEE 1284 device
// ID string.
//
// The string is searched as plain text, not split into pairs: the first
// occurrence of the key anywhere, compared without regard to ASCII case,
// wins, even at the end of a longer key or inside another pair's value.
// Printers are sloppy with their device IDs, and callers have always relied
// on that leniency.  The string is only read, never written.
#include <string_view>

#include "frame.hpp"

namespace {

constexpr unsigned char ascii_lower(unsigned char c) noexcept {
    return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c - 'A' + 'a') : c;
}

// Where the key first occurs in the string (ASCII letters match either
// case, every other byte must be equal), or npos.
std::size_t find_key(std::string_view s, std::string_view key) noexcept {
    if (key.size() > s.size()) return std::string_view::npos;
    for (std::size_t i = 0; i + key.size() <= s.size(); ++i) {
        std::size_t j = 0;
        while (j < key.size() &&
               ascii_lower(static_cast<unsigned char>(s[i + j])) == ascii_lower(static_cast<unsigned char>(key[j])))
            ++j;
        if (j == key.size()) return i;
    }
    return std::string_view::npos;
}

}  // namespace

QP_EXPORT int QORAPrinterConfStringIdParse(char *szStringId, const char *szType, char *szBuf, int cbBuf) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != szStringId) && QP_ARG(0 != szStringId[0]) &&
                          QP_ARG(((void *)0) != szType) && QP_ARG(0 != szType[0]) && QP_ARG(((void *)0) != szBuf) &&
                          QP_ARG(0 < cbBuf));
    return QP_GUARD(-1, {
        const std::string_view id(szStringId);
        const std::string_view key(szType);
        const std::size_t at = find_key(id, key);
        if (at == std::string_view::npos) return -1;

        std::string_view value = id.substr(at + key.size());
        value = value.substr(0, value.find(';'));

        const std::size_t n =
            value.size() < static_cast<std::size_t>(cbBuf) - 1 ? value.size() : static_cast<std::size_t>(cbBuf) - 1;
        value.copy(szBuf, n);
        szBuf[n] = '\0';
        return 0;
    });
}
