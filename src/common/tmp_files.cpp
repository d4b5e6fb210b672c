// Reading, editing and replacing the library's key-value files in /tmp.
#include "tmp_files.hpp"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "owners.hpp"
#include "safe_file.hpp"

namespace qp::tmpfile {

namespace {

bool blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

std::string_view trim(std::string_view s) {
    while (!s.empty() && blank(s.front())) s.remove_prefix(1);
    while (!s.empty() && blank(s.back())) s.remove_suffix(1);
    return s;
}

// Calls f(text, whole) for every line: its text without the line end, and
// the line as it stands in the file.
template <class F>
void each_line(std::string_view data, F &&f) {
    while (!data.empty()) {
        const std::size_t nl = data.find('\n');
        const std::size_t len = nl == std::string_view::npos ? data.size() : nl + 1;
        std::string_view whole = data.substr(0, len), text = whole;
        if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
        if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
        f(text, whole);
        data.remove_prefix(len);
    }
}

}  // namespace

int read(const char *name, std::size_t limit, std::string &text, bool *untrusted) {
    if (untrusted) *untrusted = false;
    return safefile::read_file(kDir, name, text, limit, true, untrusted);
}

int replace(const char *name, std::string_view text) {
    UniqueFd dir(safefile::open_dir(kDir));
    if (!dir.valid()) return errno;
    return safefile::replace(dir.get(), name, text, 0644, 0, 0);
}

bool parse_line(std::string_view line, Entry &e) {
    const std::size_t eq = line.find('=');
    if (eq == std::string_view::npos) return false;
    e.key = trim(line.substr(0, eq));
    if (e.key.empty()) return false;
    e.value = trim(line.substr(eq + 1));
    if (e.value.size() >= 2 && e.value.front() == '"' && e.value.back() == '"')
        e.value = e.value.substr(1, e.value.size() - 2);
    return true;
}

bool find(std::string_view text, std::string_view key, std::string_view &value) {
    bool found = false;
    each_line(text, [&](std::string_view line, std::string_view) {
        Entry e;
        if (!found && parse_line(line, e) && e.key == key) {
            value = e.value;
            found = true;
        }
    });
    return found;
}

std::vector<Entry> entries(std::string_view text) {
    std::vector<Entry> out;
    each_line(text, [&](std::string_view line, std::string_view) {
        Entry e;
        if (!parse_line(line, e)) return;
        for (const Entry &seen : out)
            if (seen.key == e.key) return;
        out.push_back(e);
    });
    return out;
}

std::string remove_key(std::string_view text, std::string_view key) {
    std::string out;
    out.reserve(text.size());
    each_line(text, [&](std::string_view line, std::string_view whole) {
        Entry e;
        if (!(parse_line(line, e) && e.key == key)) out += whole;
    });
    return out;
}

std::string set_key(std::string_view text, std::string_view key, std::string_view value) {
    std::string line;
    line.reserve(key.size() + value.size() + 4);
    line.append(key).append("=\"");
    for (char c : value) line += (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7F ? ' ' : c;
    line += "\"\n";

    std::string out;
    out.reserve(text.size() + line.size() + 1);
    bool placed = false;
    each_line(text, [&](std::string_view l, std::string_view whole) {
        Entry e;
        if (parse_line(l, e) && e.key == key) {
            if (!placed) out += line;
            placed = true;
            return;
        }
        out += whole;
    });
    if (!placed) {
        if (!out.empty() && out.back() != '\n') out += '\n';
        out += line;
    }
    return out;
}

}  // namespace qp::tmpfile
