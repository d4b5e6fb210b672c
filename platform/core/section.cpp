// Section files (printer.conf, smb.reserved.conf): "[name]" header lines, each
// followed by its "key = value" entries.  Blank lines, comments (# or ;) and
// lines without '=' are no entries; writers keep them byte for byte, except
// inside a section that QLIBCFileSetSection replaces.  When a name occurs
// twice, the first section of that name is the one read and written.
#include "core_internal.hpp"

#include <errno.h>

#include <new>
#include <unordered_set>

namespace {

constexpr const char *kDefaultEntryFormat = "\t%s = %s\n";
constexpr size_t npos = static_cast<size_t>(-1);

enum class Kind { Header, Entry, Blank, Comment, Garbage };

struct Parsed {
    Kind kind = Kind::Garbage;
    std::string_view name;  // Header
    std::string_view key;   // Entry
    std::string_view value;
};

Parsed classify(std::string_view text) {
    Parsed p;
    std::string_view t = qc::trim(text);
    if (t.empty()) {
        p.kind = Kind::Blank;
    } else if (t.size() >= 2 && t.front() == '[' && t.back() == ']') {
        p.kind = Kind::Header;
        p.name = t.substr(1, t.size() - 2);
    } else if (t.front() == '#' || t.front() == ';') {
        p.kind = Kind::Comment;
    } else if (size_t eq = t.find('='); eq != std::string_view::npos && !qc::trim(t.substr(0, eq)).empty()) {
        p.kind = Kind::Entry;
        p.key = qc::trim(t.substr(0, eq));
        p.value = qc::trim(t.substr(eq + 1));
    }
    return p;
}

struct Doc {
    std::vector<qc::Line> lines;
    std::vector<Parsed> parsed;

    explicit Doc(std::string_view data) : lines(qc::split_lines(data)) {
        parsed.reserve(lines.size());
        for (const auto &l : lines) parsed.push_back(classify(l.text));
    }
    size_t find_header(std::string_view name) const {
        for (size_t i = 0; i < parsed.size(); ++i)
            if (parsed[i].kind == Kind::Header && parsed[i].name == name) return i;
        return npos;
    }
    // One past the last line of the section whose header is at h.
    size_t body_end(size_t h) const {
        for (size_t i = h + 1; i < parsed.size(); ++i)
            if (parsed[i].kind == Kind::Header) return i;
        return parsed.size();
    }
    // Where a section's trailing blank and comment lines begin: they usually
    // introduce the next section, so rewrites keep them after the entries.
    size_t tail_start(size_t h, size_t end) const {
        size_t i = end;
        while (i > h + 1 && (parsed[i - 1].kind == Kind::Blank || parsed[i - 1].kind == Kind::Comment)) --i;
        return i;
    }
    void put(std::string &out, size_t i) const { out.append(lines[i].text).append(lines[i].end); }
};

void ensure_newline(std::string &out) {
    if (!out.empty() && out.back() != '\n') out += '\n';
}

// Section names and keys as they will be stored and compared; control bytes
// become blanks so that no name, key or value can forge a line.
bool prepare_name(const char *name, std::string &out) {
    out = qc::neutralise(name);
    return !qc::trim(out).empty();
}

bool prepare_key(const char *key, std::string &out) {
    out = std::string(qc::trim(qc::neutralise(key)));
    if (out.empty() || out.find('=') != std::string::npos) return false;
    return out.front() != '[' && out.front() != '#' && out.front() != ';';
}

// The hash's entries as lines in the caller's format, in the hash's order.
bool render_entries(PQLIBSZHASH hash, const char *fmt, std::string &out) {
    if (!hash) return true;
    for (const auto &[k, v] : qc::hash_items(hash)) {
        std::string key;
        if (!prepare_key(k.c_str(), key)) return false;
        out += qc::format_line(fmt, key, qc::neutralise(v));
    }
    return true;
}

int read_or_fail(const char *path, std::string &data) {
    int rc = qc::read_whole(path, data);
    if (rc != 0) {
        QC_FAIL(rc == ENOENT ? ERR_OPEN_FAILED : ERR_READ_FAILED);
        return -1;
    }
    return 0;
}

}  // namespace

extern "C" QLIBC_API int QLIBCFileGetSection(const char *szFile, const char *szSection, PQLIBSZHASH *ppHash) {
    if (!szFile || !szSection || !ppHash) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        std::string name, data;
        if (!prepare_name(szSection, name)) {
            QC_FAIL(ERR_BAD_PARAMETER);
            return -1;
        }
        if (read_or_fail(szFile, data) < 0) return -1;
        Doc doc(data);
        size_t h = doc.find_header(name);
        if (h == npos) return 0;
        if (!*ppHash && !(*ppHash = QLIBCSzHashAlloc(64))) return -1;
        std::unordered_set<std::string_view> seen;
        int count = 0;
        for (size_t i = h + 1, end = doc.body_end(h); i < end; ++i) {
            const Parsed &p = doc.parsed[i];
            if (p.kind != Kind::Entry || !seen.insert(p.key).second) continue;
            if (QLIBCSzHashSetValue(ppHash, std::string(p.key).c_str(), std::string(p.value).c_str()) < 0)
                return -1;
            ++count;
        }
        return count;
    } catch (const std::bad_alloc &) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
}

extern "C" QLIBC_API int QLIBCFileGetSectionValue(const char *szFile, const char *szSection, const char *szKey,
                                                  char *szBuf, int cbBuf) {
    if (!szFile || !szSection || !szKey || !szBuf || cbBuf <= 0) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        std::string name, key, data;
        if (!prepare_name(szSection, name) || !prepare_key(szKey, key)) {
            QC_FAIL(ERR_BAD_PARAMETER);
            return -1;
        }
        if (read_or_fail(szFile, data) < 0) return -1;
        Doc doc(data);
        size_t h = doc.find_header(name);
        if (h != npos) {
            for (size_t i = h + 1, end = doc.body_end(h); i < end; ++i)
                if (doc.parsed[i].kind == Kind::Entry && doc.parsed[i].key == key)
                    return qc::copy_out(doc.parsed[i].value, szBuf, cbBuf);
        }
        QC_FAIL(ERR_KEY_NOT_FOUND);
        return -1;
    } catch (const std::bad_alloc &) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
}

extern "C" QLIBC_API int QLIBCFileAddSection(const char *szFile, const char *szSection, PQLIBSZHASH pHash,
                                             const char *szFormat) {
    if (!szFile || !szSection) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    const char *fmt = szFormat ? szFormat : kDefaultEntryFormat;
    try {
        std::string name, block;
        if (!prepare_name(szSection, name) || !qc::format_ok(fmt)) {
            QC_FAIL(ERR_BAD_PARAMETER);
            return -1;
        }
        block = "[" + name + "]\n";
        if (!render_entries(pHash, fmt, block)) {
            QC_FAIL(ERR_BAD_PARAMETER);
            return -1;
        }
        return qc::rewrite_file(szFile, [&](bool, const std::string &old, std::string &out) {
            if (Doc(old).find_header(name) != npos) return 0;
            out = old;
            ensure_newline(out);
            out += block;
            return 1;
        });
    } catch (const std::bad_alloc &) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
}

extern "C" QLIBC_API int QLIBCFileSetSection(const char *szFile, const char *szSection, const char *szNewSection,
                                             PQLIBSZHASH pHash, const char *szFormat) {
    if (!szFile || !szSection) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    const char *fmt = szFormat ? szFormat : kDefaultEntryFormat;
    try {
        std::string name, new_name, entries;
        if (!prepare_name(szSection, name) || !prepare_name(szNewSection ? szNewSection : szSection, new_name) ||
            !qc::format_ok(fmt) || !render_entries(pHash, fmt, entries)) {
            QC_FAIL(ERR_BAD_PARAMETER);
            return -1;
        }
        return qc::rewrite_file(szFile, [&](bool exists, const std::string &old, std::string &out) {
            if (!exists) {
                QC_FAIL(ERR_OPEN_FAILED);
                return -1;
            }
            Doc doc(old);
            size_t h = doc.find_header(name);
            // No such section, or a rename onto a name already taken: nothing written.
            if (h == npos || (new_name != name && doc.find_header(new_name) != npos)) {
                QC_FAIL(ERR_BAD_PARAMETER);
                return 0;
            }
            size_t end = doc.body_end(h);
            size_t tail = doc.tail_start(h, end);
            for (size_t i = 0; i < h; ++i) doc.put(out, i);
            if (new_name != name) {
                out += "[" + new_name + "]\n";
            } else {
                doc.put(out, h);
                ensure_newline(out);
            }
            out += entries;
            for (size_t i = tail; i < doc.lines.size(); ++i) doc.put(out, i);
            return 1;
        });
    } catch (const std::bad_alloc &) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
}

extern "C" QLIBC_API int QLIBCFileSetSectionValue(const char *szFile, const char *szSection, const char *szKey,
                                                  const char *szValue) {
    if (!szFile || !szSection || !szKey || !szValue) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    try {
        std::string name, key;
        if (!prepare_name(szSection, name) || !prepare_key(szKey, key)) {
            QC_FAIL(ERR_BAD_PARAMETER);
            return -1;
        }
        const std::string new_line = qc::format_line(kDefaultEntryFormat, key, qc::neutralise(szValue));
        int rc = qc::rewrite_file(szFile, [&](bool exists, const std::string &old, std::string &out) {
            if (!exists) {
                QC_FAIL(ERR_OPEN_FAILED);
                return -1;
            }
            Doc doc(old);
            size_t h = doc.find_header(name);
            if (h == npos) {
                QC_FAIL(ERR_BAD_PARAMETER);
                return -1;
            }
            size_t end = doc.body_end(h);
            size_t first = npos;
            for (size_t i = h + 1; i < end; ++i)
                if (doc.parsed[i].kind == Kind::Entry && doc.parsed[i].key == key) {
                    first = i;
                    break;
                }
            size_t insert_at = first == npos ? doc.tail_start(h, end) : first;
            for (size_t i = 0; i < doc.lines.size(); ++i) {
                if (i == insert_at) {
                    ensure_newline(out);
                    out += new_line;
                }
                // The old line of the key and any later duplicates in the section go.
                if (i > h && i < end && doc.parsed[i].kind == Kind::Entry && doc.parsed[i].key == key) continue;
                doc.put(out, i);
            }
            if (insert_at >= doc.lines.size()) {
                ensure_newline(out);
                out += new_line;
            }
            return 1;
        });
        return rc < 0 ? -1 : 0;
    } catch (const std::bad_alloc &) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
}
