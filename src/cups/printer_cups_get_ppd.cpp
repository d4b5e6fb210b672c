// QORACupsGetPPD: the whole text of "/etc/cups/ppd/NAME.ppd" in one heap block
// that the caller frees.  Nothing is logged.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

#include "frame.hpp"
#include "owners.hpp"
#include "paths.hpp"

QP_EXPORT char *QORACupsGetPPD(const char *szName) {
    return QP_GUARD((char *)nullptr, {
        QP_CHECK_QUIET((char *)nullptr, szName);

        char path[388];
        snprintf(path, sizeof path, qp::path::kCupsPpdFmt, szName);
        qp::File file(fopen(path, "re"));
        if (!file) {
            QP_SET_ERR(ERR_OPEN_FAILED);
            return (char *)nullptr;
        }

        qp::MallocPtr<char> line;
        size_t line_cap = 0;
        qp::MallocPtr<char> text;
        int text_cap = 0;
        for (;;) {
            if (getline(line.addr(), &line_cap, file.get()) < 0) {
                // A directory opens fine and fails here with EISDIR.
                if (ferror(file.get())) QP_SET_ERR(ERR_READ_FAILED);
                break;
            }
            if (QLIBCStrCat(text.addr(), &text_cap, line.get()) < 0) return (char *)nullptr;
        }
        // An empty file gives no text: NULL, and the slot is left as it was.
        return text.release();
    });
}
