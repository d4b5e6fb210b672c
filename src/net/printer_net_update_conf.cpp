// QORAPrinterNetUpdateConf: adds (iAction non-zero) or removes (0) a network
// printer's nptab line, address -> CUPS queue name.
//
// A removal takes the line only when both the address and the queue name
// match.  nptab takes no lock: each change is one call of the core library's
// key-value writer.
#include <stdio.h>
#include <string.h>

#include "frame.hpp"
#include "internal.hpp"
#include "owners.hpp"
#include "paths.hpp"

namespace {

// The record's fields are fixed arrays that a careless caller may fill to
// the brim; copies are always terminated.
template <size_t N>
void copy_field(char (&dst)[N + 1], const char (&src)[N]) {
    size_t n = strnlen(src, N);
    memcpy(dst, src, n);
    dst[n] = '\0';
}

// 0 when the line is gone or was never there, -1 on failure.
int remove_entry(const char *ip, const char *queue) {
    qp::Hash pairs(1024);
    qp::List keys(1024);
    if (!pairs || !keys) {
        QP_SET_ERR(ERR_OUT_OF_MEMORY);
        return -1;
    }
    if (QLIBCFileGetPair(qp::path::kNptab, pairs.addr()) < 1) return 0;
    int key_count = QLIBCSzHashEnumKey(pairs.get(), keys.addr());
    if (key_count < 0) return -1;
    for (int i = 0; i < keys.size(); ++i) {
        const char *key = keys.at(i);
        if (key == nullptr || strcmp(key, ip) != 0) continue;
        const char *value = pairs.value(key);
        if (value == nullptr) {
            QP_SET_ERR(ERR_KEY_NOT_FOUND);
            continue;
        }
        if (strcmp(value, queue) != 0) continue;
        if (QLIBCFileRemoveKey(qp::path::kNptab, key) < 0) {
            QP_SET_ERR(ERR_REMOVE_KEY_FAILED);
            return -1;
        }
    }
    return 0;
}

}  // namespace

QP_EXPORT int QORAPrinterNetUpdateConf(int iAction, const PrinterNetConf *pNPConf) {
    QP_CHECK_ARGS(-1, QP_ARG(((void *)0) != pNPConf));
    return QP_GUARD(-1, {
        char ip[sizeof(pNPConf->szIP) + 1];
        char queue[sizeof(pNPConf->szCupsPrinterName) + 1];
        copy_field(ip, pNPConf->szIP);
        copy_field(queue, pNPConf->szCupsPrinterName);

        int rc = 0;
        if (iAction != 0) {
            if (QLIBCFileSetKeyValue(qp::path::kNptab, ip, queue, qp::fmt::kKeyValue) < 0) {
                QP_LOG_ERR("Set nptab failed, devname=%s, device=%s", ip, queue);
                rc = -1;
            }
        } else {
            rc = remove_entry(ip, queue);
        }
        if (rc < 0) {
            QP_LOG_ERR("%s update entry %s=%s failed.(action=%d)" QP_CODE_FMT, qp::path::kNptab, ip, queue, iAction,
                       QLIBCErrGet());
            return -1;
        }
        if (iAction == 0) return 0;

        if (QORAPrinterSmbConfSetup() < 0) {
            QP_LOG_ERR("update smb.conf failed, printer=%s" QP_LOWER_FMT, ip, QP_LOWER_ARGS);
            return -1;
        }
        return 0;
    });
}
