// /tmp/usbtab as any local user may write it: every key and value read is
// text of the table, a value looked up by its key is the one the whole-table
// read gives (cut to the buffer, never past it), lines added around the
// table change no value, and the device list holds only "lp" keys of it.
//
// Input: one byte for the buffer size, then the table.  Runs in the sandbox
// (the table is the machine's own path there).
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "fuzz_util.hpp"
#include "qoraprinter.h"
#include "tmp_files.hpp"

using namespace qpfuzz;

namespace {

const char *const kTable = "/tmp/usbtab";

void write_table(const std::string &text) {
    std::ofstream f(kTable, std::ios::binary | std::ios::trunc);
    f.write(text.data(), static_cast<std::streamsize>(text.size()));
    check(static_cast<bool>(f));
}

struct Pair {
    std::string key, value;
};

std::vector<Pair> pairs(const std::string &text) {
    write_table(text);
    std::vector<Pair> out;
    PQLIBSZHASH hash = QLIBCSzHashAlloc(16);
    PQLIBSZLIST keys = QLIBCSzListAlloc(16);
    check(hash && keys);
    if (QLIBCFileGetPair(kTable, &hash) > 0) {
        check(QLIBCSzHashEnumKey(hash, &keys) >= 0);
        for (int i = 0; i < keys->nItem; ++i) {
            const char *value = QLIBCSzHashGetValue(hash, keys->pszItem[i]);
            check(value != nullptr);
            out.push_back({keys->pszItem[i], value});
            check(contains(text, out.back().key) && contains(text, out.back().value));
        }
    }
    QLIBCSzListFree(keys);
    QLIBCSzHashFree(hash);
    return out;
}

// The value of a key by itself, in a buffer of cb bytes, up to a NUL byte
// (as the whole-table read keeps it).
std::string lookup(const std::string &key, size_t cb) {
    char *buf = guarded(cb);
    const int n = QLIBCFileGetKeyValue(kTable, key.c_str(), buf, static_cast<int>(cb), 0);
    check(n >= 0 && static_cast<size_t>(n) < cb && buf[n] == '\0');
    return buf;
}

// Keys a caller can name: a key with a control byte is looked up with it
// blanked, one with a NUL byte is listed only up to it, and one beginning
// with '[' is refused (it would read as a section header).
bool nameable(const std::string &key, const std::string &text) {
    if (key.empty() || key[0] == '[') return false;
    for (unsigned char c : key)
        if ((c < 0x20 && c != '\t') || c == 0x7f) return false;
    return !contains(text, key + std::string(1, '\0'));
}

using Entries = std::vector<std::pair<std::string, std::string>>;

Entries entries_but(std::string_view text, std::string_view key) {
    Entries out;
    for (const qp::tmpfile::Entry &e : qp::tmpfile::entries(text))
        if (e.key != key) out.emplace_back(e.key, e.value);
    return out;
}

std::vector<std::string_view> lines(std::string_view t) {
    std::vector<std::string_view> out;
    while (!t.empty()) {
        const size_t nl = t.find('\n');
        const size_t n = nl == std::string_view::npos ? t.size() : nl + 1;
        out.push_back(t.substr(0, n));
        t.remove_prefix(n);
    }
    return out;
}

// True when b is a with whole lines deleted.
bool lines_kept(std::string_view a, std::string_view b) {
    const std::vector<std::string_view> la = lines(a);
    size_t i = 0;
    for (std::string_view line : lines(b)) {
        while (i < la.size() && la[i] != line) ++i;
        if (i++ == la.size()) return false;
    }
    return true;
}

// The edits made to the table when a printer comes or goes: the other keys
// keep their values and their lines.
void edits(const std::string &text, const std::string &key) {
    const std::string removed = qp::tmpfile::remove_key(text, key);
    std::string_view value;
    check(!qp::tmpfile::find(removed, key, value));
    check(entries_but(removed, key) == entries_but(text, key));
    check(lines_kept(text, removed));

    // A key already there is set in place, a new one appended.
    const bool had = qp::tmpfile::find(text, key, value);
    const std::string set = qp::tmpfile::set_key(text, key, "9-9\n");
    check(qp::tmpfile::find(set, key, value) && value == "9-9 ");
    check(entries_but(set, key) == entries_but(text, key));
    // The key's one line now; without it, the rest is the table less lines.
    const std::string line = key + "=\"9-9 \"\n";
    std::vector<std::string_view> rest;
    size_t placed = 0;
    for (std::string_view l : lines(set)) {
        if (l == line) ++placed;
        else rest.push_back(l);
    }
    check(placed == 1);
    std::string others;
    for (std::string_view l : rest) others += l;
    check(lines_kept(had ? text : closed(text), others));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const size_t cb = data[0] + 1u;
    const std::string text(reinterpret_cast<const char *>(data + 1), size - 1);

    const std::vector<Pair> got = pairs(text);
    for (const Pair &p : got)
        if (nameable(p.key, text)) check(lookup(p.key, cb) == p.value.substr(0, cb - 1));

    char **names = nullptr;
    int count = -1;
    check(QORAPrinterUsbtabEnum(&names, &count) == 0 && count >= 0 && names != nullptr);
    for (int i = 0; i < count; ++i) {
        check(names[i] != nullptr && std::strncmp(names[i], "lp", 2) == 0);
        bool listed = false;
        for (const Pair &p : got) listed = listed || p.key == names[i];
        check(listed);
    }
    check(names[count] == nullptr);
    std::free(names);
    PQLIBSZLIST ids = QLIBCSzListAlloc(4);
    check(ids != nullptr && QORAPrinterProcUsbtabIdEnum(&ids) == 0);
    QLIBCSzListFree(ids);

    // The library's own reader of the table agrees with the core's.
    if (!contains(text, std::string(1, '\0'))) {
        Entries core;
        for (const Pair &p : got) core.emplace_back(p.key, p.value);
        check(entries_but(text, "") == core);
    }
    edits(text, "lp0");
    if (!got.empty() && nameable(got.front().key, text)) edits(text, got.front().key);

    // Lines that are no entry before the table, a new key after it.
    const std::string around = "# qp\n\n" + closed(text) + "qp-added-key=\"1-9\"\n";
    const std::vector<Pair> moved = pairs(around);
    for (const Pair &p : got)
        if (nameable(p.key, text)) check(lookup(p.key, cb) == p.value.substr(0, cb - 1));
    if (!contains(text, "qp-added-key")) check(!moved.empty() && lookup("qp-added-key", 8) == "1-9");
    return 0;
}
