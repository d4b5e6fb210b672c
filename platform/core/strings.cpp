// String helpers.
#include "core_internal.hpp"

#include <stdlib.h>
#include <string.h>

#include <new>

extern "C" QLIBC_API void QLIBCStrTrim(char *sz, int iReserved1, int iReserved2) {
    (void)iReserved1;
    (void)iReserved2;
    if (!sz) return;
    size_t len = strlen(sz);
    size_t start = 0;
    while (start < len && qc::is_blank(static_cast<unsigned char>(sz[start]))) ++start;
    while (len > start && qc::is_blank(static_cast<unsigned char>(sz[len - 1]))) --len;
    memmove(sz, sz + start, len - start);
    sz[len - start] = '\0';
}

namespace {

int split(const char *sz, const char *delim, PQLIBSZLIST *ppList, bool keep_empty) {
    if (!sz || !delim || !ppList) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    if (!*ppList && !(*ppList = QLIBCSzListAlloc(16))) return -1;
    int count = 0;
    const char *p = sz;
    for (;;) {
        size_t n = strcspn(p, delim);
        if (n > 0 || keep_empty) {
            char *piece = strndup(p, n);
            if (!piece) {
                QC_FAIL(ERR_OUT_OF_MEMORY);
                return -1;
            }
            int rc = QLIBCSzListPush(ppList, piece);
            free(piece);
            if (rc < 0) return -1;
            ++count;
        }
        if (p[n] == '\0') break;
        p += n + 1;
    }
    return count;
}

}  // namespace

extern "C" QLIBC_API int QLIBCStrTok(const char *sz, const char *szDelim, PQLIBSZLIST *ppList) {
    return split(sz, szDelim, ppList, false);
}

extern "C" QLIBC_API int QLIBCStrSep(const char *sz, const char *szSep, PQLIBSZLIST *ppList) {
    return split(sz, szSep, ppList, true);
}

extern "C" QLIBC_API void QLIBCStrCaseLower(const char *szSrc, int iReserved, char *szBuf, int cbBuf) {
    (void)iReserved;
    if (!szSrc || !szBuf || cbBuf <= 0) return;
    int i = 0;
    for (; i < cbBuf - 1 && szSrc[i]; ++i) {
        unsigned char c = static_cast<unsigned char>(szSrc[i]);
        szBuf[i] = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    }
    szBuf[i] = '\0';
}

extern "C" QLIBC_API int QLIBCStrCat(char **ppBuf, int *pcbBuf, const char *sz) {
    if (!ppBuf || !pcbBuf || !sz) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    size_t have = *ppBuf ? strlen(*ppBuf) : 0;
    size_t cap = *ppBuf && *pcbBuf > 0 ? static_cast<size_t>(*pcbBuf) : 0;
    size_t add = strlen(sz);
    size_t need = have + add + 1;
    if (need > 0x7fffffffu) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
    if (need > cap) {
        size_t grow = cap * 2 > need ? cap * 2 : need;
        if (grow < 256) grow = 256;
        if (grow > 0x7fffffffu) grow = need;
        char *p = static_cast<char *>(realloc(*ppBuf, grow));
        if (!p) {
            QC_FAIL(ERR_OUT_OF_MEMORY);
            return -1;
        }
        if (!*ppBuf) p[0] = '\0';
        *ppBuf = p;
        *pcbBuf = static_cast<int>(grow);
    }
    memcpy(*ppBuf + have, sz, add + 1);
    return 0;
}

extern "C" QLIBC_API int QLIBCStrReplace(const char *szSrc, const char *szPattern, const char *szReplace, char *szBuf,
                                         int cbBuf) {
    if (!szSrc || !szPattern || !szReplace || !szBuf || cbBuf <= 0) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        std::string out;
        int count = 0;
        const size_t plen = strlen(szPattern);
        std::string_view src = szSrc;
        if (plen == 0) {
            out = src;
        } else {
            size_t pos = 0;
            for (;;) {
                size_t hit = src.find(szPattern, pos, plen);
                if (hit == std::string_view::npos) break;
                out.append(src.substr(pos, hit - pos)).append(szReplace);
                pos = hit + plen;
                ++count;
            }
            out.append(src.substr(pos));
        }
        qc::copy_out(out, szBuf, cbBuf);
        return count;
    } catch (const std::bad_alloc &) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
}
