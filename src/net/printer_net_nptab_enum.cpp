// QORAPrinterNetNptabEnum: appends the printer ID "ADDRESS-QUEUE" of every
// nptab entry to the caller's list.
//
// nptab holds key="value" lines and blank lines only; the first line that is
// not an entry ends the enumeration with -1 (entries before it stay in the
// list).  A missing table is an empty one.
#include <stdio.h>
#include <string.h>

#include "frame.hpp"
#include "net/net_scan.hpp"
#include "owners.hpp"
#include "paths.hpp"

namespace {

using qp::net::kLineSize;

// Splits one line and pushes its printer ID; false on a line that is not an
// entry (the message is logged here, the common one by the caller).
bool push_entry(const char *line, PQLIBSZLIST *ppList) {
    qp::List pieces(1024);
    if (!pieces) {
        QP_LOG_ERR("QLIBCSzListAlloc failed. " QP_LOWER_FMT, QP_LOWER_ARGS);
        return false;
    }
    // key="value"\n gives: key, "", value, "\n".
    if (QLIBCStrSep(line, "=\"", pieces.addr()) < 0) {
        QP_LOG_ERR("QLIBCStrSep failed. " QP_LOWER_FMT, QP_LOWER_ARGS);
        return false;
    }
    if (pieces.size() < 3) {
        QP_LOG_ERR("Parse printer name failed. %d", pieces.size());
        return false;
    }
    const char *key = pieces.at(0);
    const char *value = pieces.at(2);
    const size_t key_len = strlen(key), value_len = strlen(value);
    if (key_len + value_len + 2 > kLineSize) {
        QP_SET_ERR(ERR_NAME_TOO_LONG);
        return false;
    }
    // "%s-%s", assembled by hand now that it is known to fit.
    char id[kLineSize];
    memcpy(id, key, key_len);
    id[key_len] = '-';
    memcpy(id + key_len + 1, value, value_len);
    id[key_len + 1 + value_len] = '\0';
    QLIBCSzListPush(ppList, id);
    return true;
}

bool at_end(FILE *f) {
    int c = getc(f);
    if (c == EOF) return true;
    ungetc(c, f);
    return false;
}

}  // namespace

int qp::net::nptab_read(FILE *table, PQLIBSZLIST *ppList) {
    char line[kLineSize];
    while (fgets(line, sizeof(line), table) != nullptr) {
        if (line[0] == '\0' || strcmp(line, "\n") == 0) continue;
        size_t len = strlen(line);
        // A line that fills the buffer without its newline is longer than any
        // entry can be; reading on would take its tail for a line of its own.
        if (len == sizeof(line) - 1 && line[len - 1] != '\n' && !at_end(table)) {
            QP_SET_ERR(ERR_NAME_TOO_LONG);
        } else if (push_entry(line, ppList)) {
            continue;
        }
        QP_LOG_ERR("Failed to get network printer ID." QP_LOWER_FMT, QP_LOWER_ARGS);
        return -1;
    }
    return 0;
}

QP_EXPORT int QORAPrinterNetNptabEnum(PQLIBSZLIST *ppList) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != ppList));

    return QP_GUARD(-1, {
        qp::File table(fopen(qp::path::kNptab, "re"));
        if (!table) {
            QP_SET_ERR(ERR_OPEN_FAILED);
            return 0;
        }
        return qp::net::nptab_read(table.get(), ppList);
    });
}
