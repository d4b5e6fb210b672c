// Key-value files: lines key="value" (usbtab, nptab, the USB/IP status files).
// A line is split at its first '='; blanks around key and value go, and one
// pair of double quotes around the value.  Lines without '=' or with an empty
// key are no entries, and writers keep them (and every other line they do
// not change) byte for byte.
#include "core_internal.hpp"

#include <errno.h>

#include <new>

namespace {

constexpr const char *kDefaultKvFormat = "%s=\"%s\"\n";

struct KvEntry {
    std::string_view key;
    std::string_view value;
};

bool parse_kv(std::string_view line, KvEntry &e) {
    size_t eq = line.find('=');
    if (eq == std::string_view::npos) return false;
    e.key = qc::trim(line.substr(0, eq));
    if (e.key.empty()) return false;
    e.value = qc::trim(line.substr(eq + 1));
    if (e.value.size() >= 2 && e.value.front() == '"' && e.value.back() == '"')
        e.value = e.value.substr(1, e.value.size() - 2);
    return true;
}

// The key as it will be stored and compared: control bytes blanked, blanks
// around it dropped (the reader drops them too).  Refuses keys that would
// read back as something else.
bool prepare_key(const char *key, std::string &out) {
    out = std::string(qc::trim(qc::neutralise(key)));
    return !out.empty() && out.find('=') == std::string::npos && out.front() != '[';
}

int read_file_or_fail(const char *path, std::string &data) {
    int rc = qc::read_table(path, data);
    if (rc != 0) {
        QC_FAIL(rc == ENOENT ? ERR_OPEN_FAILED : ERR_READ_FAILED);
        return -1;
    }
    return 0;
}

}  // namespace

extern "C" QLIBC_API int QLIBCFileGetKeyValue(const char *szFile, const char *szKey, char *szBuf, int cbBuf,
                                              int iFlags) {
    (void)iFlags;
    if (!szFile || !szKey || !szBuf || cbBuf <= 0) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        std::string key;
        if (!prepare_key(szKey, key)) {
            QC_FAIL(ERR_BAD_PARAMETER);
            return -1;
        }
        std::string data;
        if (read_file_or_fail(szFile, data) < 0) return -1;
        qc::Line line;
        for (size_t pos = 0; qc::next_line(data, pos, line);) {
            KvEntry e;
            if (parse_kv(line.text, e) && e.key == key) return qc::copy_out(e.value, szBuf, cbBuf);
        }
        QC_FAIL(ERR_KEY_NOT_FOUND);
        return -1;
    } catch (const std::bad_alloc &) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
}

extern "C" QLIBC_API int QLIBCFileGetPair(const char *szFile, PQLIBSZHASH *ppHash) {
    if (!szFile || !ppHash) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        std::string data;
        if (read_file_or_fail(szFile, data) < 0) return -1;
        if (!*ppHash && !(*ppHash = QLIBCSzHashAlloc(64))) return -1;
        // The first line of a key counts, as for QLIBCFileGetKeyValue.
        qc::FirstEntries entries(ppHash);
        qc::Line line;
        for (size_t pos = 0; qc::next_line(data, pos, line);) {
            KvEntry e;
            if (parse_kv(line.text, e) && entries.add(e.key, e.value) < 0) return -1;
        }
        return entries.count();
    } catch (const std::bad_alloc &) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
}

extern "C" QLIBC_API int QLIBCFileSetKeyValue(const char *szFile, const char *szKey, const char *szValue,
                                              const char *szFormat) {
    if (!szFile || !szKey || !szValue) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    const char *fmt = szFormat ? szFormat : kDefaultKvFormat;
    try {
        std::string key;
        if (!prepare_key(szKey, key) || !qc::format_ok(fmt)) {
            QC_FAIL(ERR_BAD_PARAMETER);
            return -1;
        }
        const std::string new_line = qc::format_line(fmt, key, qc::neutralise(szValue));
        int rc = qc::rewrite_file(szFile, [&](bool, std::string_view old, qc::Splice &out) {
            bool placed = false;
            qc::Line line;
            for (size_t pos = 0; qc::next_line(old, pos, line);) {
                KvEntry e;
                if (parse_kv(line.text, e) && e.key == key) {
                    if (!placed) out.add(new_line);  // later duplicates of the key go
                    placed = true;
                    continue;
                }
                out.keep(line.whole());
            }
            if (!placed) {
                out.ensure_newline();
                out.add(new_line);
            }
            return 1;
        });
        return rc < 0 ? -1 : 0;
    } catch (const std::bad_alloc &) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
}

extern "C" QLIBC_API int QLIBCFileRemoveKey(const char *szFile, const char *szKey) {
    if (!szFile || !szKey) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        std::string key;
        if (!prepare_key(szKey, key)) {
            QC_FAIL(ERR_BAD_PARAMETER);
            return -1;
        }
        // Nothing to remove from a file that is not there; no lock file either.
        if (!QLIBCFileExist(szFile)) return 0;
        int rc = qc::rewrite_file(szFile, [&](bool exists, std::string_view old, qc::Splice &out) {
            if (!exists) return 0;
            bool removed = false;
            qc::Line line;
            for (size_t pos = 0; qc::next_line(old, pos, line);) {
                KvEntry e;
                if (parse_kv(line.text, e) && e.key == key) {
                    removed = true;
                    continue;
                }
                out.keep(line.whole());
            }
            return removed ? 1 : 0;
        });
        return rc < 0 ? -1 : 0;
    } catch (const std::bad_alloc &) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
}
