// Section files (printer.conf, smb.reserved.conf): "[name]" header lines, each
// followed by its "key = value" entries.  Blank lines, comments (# or ;) and
// lines without '=' are no entries; writers keep them byte for byte, except
// inside a section that QLIBCFileSetSection replaces.  When a name occurs
// twice, the first section of that name is the one read and written.
#include "core_internal.hpp"

#include <errno.h>
#include <string.h>

#include <new>

namespace {

using qc::Line;

constexpr const char *kDefaultEntryFormat = "\t%s = %s\n";
constexpr size_t npos = static_cast<size_t>(-1);

enum class Kind { Header, Entry, Blank, Comment, Garbage };

struct Parsed {
    Kind kind = Kind::Garbage;
    std::string_view key;  // Entry
    std::string_view value;
};

Parsed classify(std::string_view text) {
    Parsed p;
    std::string_view t = qc::trim(text);
    if (t.empty()) {
        p.kind = Kind::Blank;
    } else if (t.size() >= 2 && t.front() == '[' && t.back() == ']') {
        p.kind = Kind::Header;
    } else if (t.front() == '#' || t.front() == ';') {
        p.kind = Kind::Comment;
    } else if (size_t eq = t.find('='); eq != std::string_view::npos && !qc::trim(t.substr(0, eq)).empty()) {
        p.kind = Kind::Entry;
        p.key = qc::trim(t.substr(0, eq));
        p.value = qc::trim(t.substr(eq + 1));
    }
    return p;
}

// A header line found in the text: where the line starts, where the line
// after it starts, and the name between the brackets.
struct Header {
    size_t start = 0;
    size_t next = 0;
    std::string_view name;
};

// Finds the first header line at or after pos, which is the start of a line.
// Only lines whose first non-blank byte is '[' are looked at, so the scan
// skips whole sections at memchr speed instead of parsing their entries.
bool next_header(std::string_view d, size_t pos, Header &h) {
    const char *base = d.data();
    const size_t n = d.size();
    while (pos < n) {
        const auto *q = static_cast<const char *>(memchr(base + pos, '[', n - pos));
        if (!q) return false;
        const size_t open = static_cast<size_t>(q - base);
        size_t start = open;
        while (start > pos && base[start - 1] != '\n' && qc::is_blank(static_cast<unsigned char>(base[start - 1])))
            --start;
        const bool at_line_start = start == pos || base[start - 1] == '\n';
        const auto *nl = static_cast<const char *>(memchr(q, '\n', n - open));
        const size_t line_end = nl ? static_cast<size_t>(nl - base) : n;
        pos = nl ? line_end + 1 : n;
        if (!at_line_start) continue;  // no header can start later on this line
        size_t close = line_end;
        while (close > open && qc::is_blank(static_cast<unsigned char>(base[close - 1]))) --close;
        if (close - open >= 2 && base[close - 1] == ']') {
            h = {start, pos, d.substr(open + 1, close - open - 2)};
            return true;
        }
    }
    return false;
}

// The first section of that name.
bool find_section(std::string_view d, std::string_view name, Header &h) {
    for (size_t pos = 0; next_header(d, pos, h); pos = h.next)
        if (h.name == name) return true;
    return false;
}

// Where the section whose header is h ends: the start of the next header
// line, or the end of the text.
size_t body_end(std::string_view d, const Header &h) {
    Header next;
    return next_header(d, h.next, next) ? next.start : d.size();
}

// Where the section's trailing blank and comment lines begin: they usually
// introduce the next section, so rewrites keep them after the entries.
size_t tail_start(std::string_view d, size_t body, size_t end) {
    size_t tail = npos;
    Line line;
    for (size_t pos = body, at = body; pos < end && qc::next_line(d, pos, line); at = pos) {
        Kind k = classify(line.text).kind;
        if (k == Kind::Blank || k == Kind::Comment) {
            if (tail == npos) tail = at;
        } else {
            tail = npos;
        }
    }
    return tail == npos ? end : tail;
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
        if (qc::read_table_or_fail(szFile, data) < 0) return -1;
        Header h;
        if (!find_section(data, name, h)) return 0;
        if (!*ppHash && !(*ppHash = QLIBCSzHashAlloc(64))) return -1;
        qc::FirstEntries entries(ppHash);
        Line line;
        for (size_t pos = h.next, end = body_end(data, h); pos < end && qc::next_line(data, pos, line);) {
            const Parsed p = classify(line.text);
            if (p.kind == Kind::Entry && entries.add(p.key, p.value) < 0) return -1;
        }
        return entries.count();
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
        if (qc::read_table_or_fail(szFile, data) < 0) return -1;
        Header h;
        if (find_section(data, name, h)) {
            Line line;
            for (size_t pos = h.next, end = body_end(data, h); pos < end && qc::next_line(data, pos, line);) {
                const Parsed p = classify(line.text);
                if (p.kind == Kind::Entry && p.key == key) return qc::copy_out(p.value, szBuf, cbBuf);
            }
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
        return qc::rewrite_file(szFile, [&](bool, std::string_view old, qc::Splice &out) {
            Header h;
            if (find_section(old, name, h)) return 0;
            out.keep(old);
            out.ensure_newline();
            out.add(std::move(block));
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
        return qc::rewrite_file(szFile, [&](bool exists, std::string_view old, qc::Splice &out) {
            if (!exists) {
                QC_FAIL(ERR_OPEN_FAILED);
                return -1;
            }
            Header h, taken;
            // No such section, or a rename onto a name already taken: nothing written.
            if (!find_section(old, name, h) || (new_name != name && find_section(old, new_name, taken))) {
                QC_FAIL(ERR_BAD_PARAMETER);
                return 0;
            }
            // Everything before the header and from the section's trailing
            // blank and comment lines on goes out as it stands.
            out.keep(old.substr(0, h.start));
            if (new_name != name) {
                out.add("[" + new_name + "]\n");
            } else {
                out.keep(old.substr(h.start, h.next - h.start));
                out.ensure_newline();
            }
            out.add(std::move(entries));
            out.keep(old.substr(tail_start(old, h.next, body_end(old, h))));
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
        int rc = qc::rewrite_file(szFile, [&](bool exists, std::string_view old, qc::Splice &out) {
            if (!exists) {
                QC_FAIL(ERR_OPEN_FAILED);
                return -1;
            }
            Header h;
            if (!find_section(old, name, h)) {
                QC_FAIL(ERR_BAD_PARAMETER);
                return -1;
            }
            const size_t end = body_end(old, h);
            auto is_key = [&](const Line &l) {
                const Parsed p = classify(l.text);
                return p.kind == Kind::Entry && p.key == key;
            };
            // The new line takes the place of the key's first line, or goes
            // after the section's last entry.
            size_t insert_at = npos;
            Line line;
            for (size_t pos = h.next, at = pos; pos < end && qc::next_line(old, pos, line); at = pos)
                if (is_key(line)) {
                    insert_at = at;
                    break;
                }
            if (insert_at == npos) insert_at = tail_start(old, h.next, end);

            out.keep(old.substr(0, h.next));
            for (size_t pos = h.next, at = pos; pos < end && qc::next_line(old, pos, line); at = pos) {
                if (at == insert_at) {
                    out.ensure_newline();
                    out.add(new_line);
                }
                // The old line of the key and any later duplicates in the section go.
                if (!is_key(line)) out.keep(line.whole());
            }
            if (insert_at == end) {
                out.ensure_newline();
                out.add(new_line);
            }
            out.keep(old.substr(end));
            return 1;
        });
        return rc < 0 ? -1 : 0;
    } catch (const std::bad_alloc &) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
        return -1;
    }
}
