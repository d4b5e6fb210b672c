// QORACupsGetPPD: the whole text of "/etc/cups/ppd/NAME.ppd" in one heap block
// that the caller frees.  Nothing is logged, except for a name that is not a
// plain file name (see names.hpp), which is refused with the argument line.
//
// The file is read in one block sized from its length, so reading costs
// time linear in the file's size.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <string>

#include "frame.hpp"
#include "names.hpp"
#include "owners.hpp"
#include "paths.hpp"

namespace {

constexpr size_t kPiece = 64 * 1024;

// Cuts each line of text[0, len) at its first NUL byte, as a C string ends
// there (its newline goes with the rest), and answers the new length.
// Without a NUL the text is left as it is.
size_t cut_lines_at_nul(char *text, size_t len) {
    char *nul = static_cast<char *>(memchr(text, '\0', len));
    if (nul == nullptr) return len;
    size_t out = static_cast<size_t>(nul - text), in = out;
    bool cutting = true;
    for (; in < len; ++in) {
        const char c = text[in];
        if (c == '\0' || (cutting && c == '\n')) {
            cutting = c == '\0';
            continue;
        }
        if (!cutting) text[out++] = c;
    }
    return out;
}

}  // namespace

QP_EXPORT char *QORACupsGetPPD(const char *szName) {
    QP_CHECK_QUIET((char *)nullptr, szName);
    QP_CHECK_ARGS((char *)nullptr, QP_ARG(qp::name_ok(szName, qp::kPpdNameMax)));
    return QP_GUARD((char *)nullptr, {
        const std::string path = std::string(qp::path::kCupsPpdDir) + szName + ".ppd";
        qp::File file(fopen(path.c_str(), "re"));
        if (!file) {
            QP_SET_ERR(ERR_OPEN_FAILED);
            return (char *)nullptr;
        }

        // The whole file in one block sized from fstat (grown by doubling if
        // the file grows meanwhile), then every line cut at its first NUL
        // byte, as a C string would end there.
        struct stat st;
        size_t cap = 4096;
        if (fstat(fileno(file.get()), &st) == 0 && st.st_size > 0) cap = static_cast<size_t>(st.st_size) + 1;
        qp::MallocPtr<char> text(static_cast<char *>(malloc(cap)));
        if (!text) {
            QP_SET_ERR(ERR_OUT_OF_MEMORY);
            return (char *)nullptr;
        }
        size_t len = 0;
        bool has_nul = false;
        for (;;) {
            if (len + 1 == cap) {
                char *grown = static_cast<char *>(realloc(text.get(), cap * 2));
                if (!grown) {
                    QP_SET_ERR(ERR_OUT_OF_MEMORY);
                    return (char *)nullptr;
                }
                (void)text.release();
                *text.addr() = grown;
                cap *= 2;
            }
            // In pieces that are still in the cache when searched for a NUL.
            const size_t want = cap - 1 - len < kPiece ? cap - 1 - len : kPiece;
            const size_t n = fread(text.get() + len, 1, want, file.get());
            has_nul = has_nul || memchr(text.get() + len, '\0', n) != nullptr;
            len += n;
            if (n == 0) {
                // A directory opens fine and fails here with EISDIR.
                if (ferror(file.get())) QP_SET_ERR(ERR_READ_FAILED);
                break;
            }
        }
        // An empty file gives no text: NULL, and the slot is left as it was.
        if (len == 0) return (char *)nullptr;
        text.get()[has_nul ? cut_lines_at_nul(text.get(), len) : len] = '\0';
        return text.release();
    });
}
