// String lists (a plain C record the callers index directly) and string
// hashes (keys unique, kept in the order they were first set, so the section
// writers put entries out in the order the caller set them).
#include "core_internal.hpp"

#include <stdlib.h>
#include <string.h>

#include <new>
#include <unordered_map>
#include <utility>

struct QLIBSZHASH {
    std::vector<std::pair<std::string, std::string>> items;
    std::unordered_map<std::string, size_t> index;  // key -> position in items
};

namespace {

constexpr int kMaxStartCapacity = 1 << 16;

bool list_grow(QLIBSZLIST *list) {
    if (list->nItem < list->nAlloc) return true;
    if (list->nAlloc >= (1 << 28)) return false;
    int want = list->nAlloc > 0 ? list->nAlloc * 2 : 16;
    void *p = realloc(list->pszItem, sizeof(char *) * static_cast<size_t>(want));
    if (!p) return false;
    list->pszItem = static_cast<char **>(p);
    list->nAlloc = want;
    return true;
}

}  // namespace

extern "C" QLIBC_API PQLIBSZLIST QLIBCSzListAlloc(int nAlloc) {
    if (nAlloc < 1) nAlloc = 1;
    if (nAlloc > kMaxStartCapacity) nAlloc = kMaxStartCapacity;
    auto *list = static_cast<QLIBSZLIST *>(calloc(1, sizeof(QLIBSZLIST)));
    if (!list) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return nullptr;
    }
    list->pszItem = static_cast<char **>(calloc(static_cast<size_t>(nAlloc), sizeof(char *)));
    if (!list->pszItem) {
        free(list);
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return nullptr;
    }
    list->nAlloc = nAlloc;
    return list;
}

extern "C" QLIBC_API void QLIBCSzListFree(PQLIBSZLIST pList) {
    if (!pList) return;
    for (int i = 0; i < pList->nItem; ++i) free(pList->pszItem[i]);
    free(pList->pszItem);
    free(pList);
}

extern "C" QLIBC_API int QLIBCSzListPush(PQLIBSZLIST *ppList, const char *sz) {
    if (!ppList || !sz) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    if (!*ppList) {
        *ppList = QLIBCSzListAlloc(16);
        if (!*ppList) return -1;
    }
    QLIBSZLIST *list = *ppList;
    char *copy = strdup(sz);
    if (!copy || !list_grow(list)) {
        free(copy);
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
    list->pszItem[list->nItem++] = copy;
    return 0;
}

extern "C" QLIBC_API const char *QLIBCSzListGet(PQLIBSZLIST pList, int i) {
    if (!pList || i < 0 || i >= pList->nItem) return nullptr;
    return pList->pszItem[i];
}

extern "C" QLIBC_API PQLIBSZHASH QLIBCSzHashAlloc(int nAlloc) {
    try {
        auto *hash = new QLIBSZHASH;
        if (nAlloc > 0) {
            size_t n = static_cast<size_t>(nAlloc < kMaxStartCapacity ? nAlloc : kMaxStartCapacity);
            hash->items.reserve(n);
            hash->index.reserve(n);
        }
        return hash;
    } catch (const std::bad_alloc &) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return nullptr;
    }
}

extern "C" QLIBC_API void QLIBCSzHashFree(PQLIBSZHASH pHash) { delete pHash; }

extern "C" QLIBC_API int QLIBCSzHashSetValue(PQLIBSZHASH *ppHash, const char *szKey, const char *szValue) {
    if (!ppHash || !szKey || !szValue) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    if (!*ppHash) {
        *ppHash = QLIBCSzHashAlloc(16);
        if (!*ppHash) return -1;
    }
    QLIBSZHASH *hash = *ppHash;
    try {
        auto it = hash->index.find(szKey);
        if (it != hash->index.end()) {
            hash->items[it->second].second = szValue;
            return 0;
        }
        hash->items.emplace_back(szKey, szValue);
        try {
            hash->index.emplace(szKey, hash->items.size() - 1);
        } catch (...) {
            hash->items.pop_back();
            throw;
        }
        return 0;
    } catch (const std::bad_alloc &) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
}

extern "C" QLIBC_API const char *QLIBCSzHashGetValue(PQLIBSZHASH pHash, const char *szKey) {
    if (!pHash || !szKey) return nullptr;
    try {
        auto it = pHash->index.find(szKey);
        return it == pHash->index.end() ? nullptr : pHash->items[it->second].second.c_str();
    } catch (const std::bad_alloc &) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return nullptr;
    }
}

extern "C" QLIBC_API int QLIBCSzHashRemoveKey(PQLIBSZHASH pHash, const char *szKey) {
    if (!pHash || !szKey) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        auto it = pHash->index.find(szKey);
        if (it == pHash->index.end()) return 0;
        size_t pos = it->second;
        pHash->index.erase(it);
        pHash->items.erase(pHash->items.begin() + static_cast<std::ptrdiff_t>(pos));
        for (size_t i = pos; i < pHash->items.size(); ++i) pHash->index[pHash->items[i].first] = i;
        return 0;
    } catch (const std::bad_alloc &) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
}

extern "C" QLIBC_API int QLIBCSzHashEnumKey(PQLIBSZHASH pHash, PQLIBSZLIST *ppList) {
    if (!pHash || !ppList) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    for (const auto &item : pHash->items)
        if (QLIBCSzListPush(ppList, item.first.c_str()) < 0) return -1;
    return static_cast<int>(pHash->items.size());
}

extern "C" QLIBC_API int QLIBCSzHashCount(PQLIBSZHASH pHash) {
    if (!pHash) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    return static_cast<int>(pHash->items.size());
}

namespace qc {
// Entries of a hash in order, for the section and key-value writers.
const std::vector<std::pair<std::string, std::string>> &hash_items(const QLIBSZHASH *hash) { return hash->items; }
}  // namespace qc
