// nptab as any local writer may leave it: every printer ID listed joins a
// key and a value of the table by '-', neither holding '=' or '"'; an entry
// added before the table is listed first and changes nothing after it; one
// added after a table that was read to its end is listed last.
//
// Input: the table.
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_util.hpp"
#include "net/net_scan.hpp"

using namespace qpfuzz;

namespace {

struct Table {
    int rc;
    std::vector<std::string> ids;
};

// Some '-' of the ID splits it into a key and a value both found in the table.
bool joins(const std::string &id, const std::string &text) {
    for (size_t at = id.find('-'); at != std::string::npos; at = id.find('-', at + 1)) {
        const std::string key = id.substr(0, at), value = id.substr(at + 1);
        if (key.find_first_of("=\"") == std::string::npos && value.find_first_of("=\"") == std::string::npos &&
            contains(text, key) && contains(text, value))
            return true;
    }
    return false;
}

Table read(const std::string &text) {
    FILE *f = stream(text);
    check(f != nullptr);
    PQLIBSZLIST list = QLIBCSzListAlloc(16);
    check(list != nullptr);
    Table t{qp::net::nptab_read(f, &list), {}};
    std::fclose(f);
    check(t.rc == 0 || t.rc == -1);
    for (int i = 0; i < list->nItem; ++i) {
        t.ids.emplace_back(list->pszItem[i]);
        check(t.ids.back().size() < qp::net::kLineSize && joins(t.ids.back(), text));
    }
    QLIBCSzListFree(list);
    return t;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    const Table t = read(text);
    const Table again = read(text);
    check(again.rc == t.rc && again.ids == t.ids);

    Table moved = read("10.9.9.9=\"Other\"\n\n" + text);
    check(moved.rc == t.rc && !moved.ids.empty() && moved.ids.front() == "10.9.9.9-Other");
    moved.ids.erase(moved.ids.begin());
    check(moved.ids == t.ids);

    // Only a table whose last line is complete: a full-length last line is
    // accepted at the end of the file but not when a newline follows it.
    if (text.empty() || text.back() == '\n') {
        Table tail = read(text + "10.9.9.8=\"Tail\"\n");
        check(tail.rc == t.rc);
        if (t.rc == 0) {
            check(!tail.ids.empty() && tail.ids.back() == "10.9.9.8-Tail");
            tail.ids.pop_back();
        }
        check(tail.ids == t.ids);
    }
    return 0;
}
