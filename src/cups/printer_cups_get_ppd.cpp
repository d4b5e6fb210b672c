// QORACupsGetPPD: the whole text of "/etc/cups/ppd/NAME.ppd" in one heap block
// that the caller frees.  Nothing is logged, except for a name that is not a
// plain file name (see names.hpp), which is refused with the argument line.
//
// The text grows by doubling and its length is kept, so reading costs time
// linear in the file's size.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "frame.hpp"
#include "names.hpp"
#include "owners.hpp"
#include "paths.hpp"

QP_EXPORT char *QORACupsGetPPD(const char *szName) {
    return QP_GUARD((char *)nullptr, {
        QP_CHECK_QUIET((char *)nullptr, szName);
        QP_CHECK_ARGS((char *)nullptr, QP_ARG(qp::name_ok(szName, qp::kPpdNameMax)));

        const std::string path = std::string(qp::path::kCupsPpdDir) + szName + ".ppd";
        qp::File file(fopen(path.c_str(), "re"));
        if (!file) {
            QP_SET_ERR(ERR_OPEN_FAILED);
            return (char *)nullptr;
        }

        qp::MallocPtr<char> line;
        size_t line_cap = 0;
        qp::MallocPtr<char> text;
        size_t text_len = 0, text_cap = 0;
        for (;;) {
            const ssize_t n = getline(line.addr(), &line_cap, file.get());
            if (n < 0) {
                // A directory opens fine and fails here with EISDIR.
                if (ferror(file.get())) QP_SET_ERR(ERR_READ_FAILED);
                break;
            }
            // A NUL byte ends what a line contributes, as it ends a C string.
            const size_t add = strnlen(line.get(), static_cast<size_t>(n));
            const size_t need = text_len + add + 1;
            if (need > text_cap) {
                size_t cap = text_cap ? text_cap : 4096;
                while (cap < need) cap *= 2;
                char *grown = static_cast<char *>(realloc(text.get(), cap));
                if (!grown) {
                    QP_SET_ERR(ERR_OUT_OF_MEMORY);
                    return (char *)nullptr;
                }
                (void)text.release();
                *text.addr() = grown;
                text_cap = cap;
            }
            memcpy(text.get() + text_len, line.get(), add);
            text_len += add;
            text.get()[text_len] = '\0';
        }
        // An empty file gives no text: NULL, and the slot is left as it was.
        return text.release();
    });
}
