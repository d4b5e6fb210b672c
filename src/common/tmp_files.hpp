// The library's key-value files in /tmp (usbtab, the USB/IP status files).
//
// Any local user can create names in /tmp, so these files are never opened by
// path: they are read through qp::safefile (a link, FIFO, device, hard link
// or a file that is not root's alone reads as absent; a file over the size
// limit is an error) and written by replacing the name with a new root-owned
// 0644 file, never through what stood there.  The text format is the core
// library's: key="value" lines, split at the first '=', blanks around key and
// value and one pair of quotes dropped, the first line of a key counts.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace qp::tmpfile {

inline constexpr const char *kDir = "/tmp";

// Reads /tmp/NAME into text: 0; ENOENT when missing or not trustworthy (text
// empty, *untrusted set for the latter); EFBIG over the limit; another errno
// when it cannot be read.
int read(const char *name, std::size_t limit, std::string &text, bool *untrusted = nullptr);

// Replaces /tmp/NAME by text (root, 0644): 0 or errno.
int replace(const char *name, std::string_view text);

// One key="value" line.
struct Entry {
    std::string_view key;
    std::string_view value;
};
bool parse_line(std::string_view line, Entry &e);

// The value of the first line of a key; false when no line has it.
bool find(std::string_view text, std::string_view key, std::string_view &value);

// Every entry, in order, first line of each key only.
std::vector<Entry> entries(std::string_view text);

// The text with every line of the key removed; other lines byte for byte.
std::string remove_key(std::string_view text, std::string_view key);

// The text with the key's first line replaced by key="value" (later lines
// of the key dropped) or, when absent, the line appended.  Control bytes of
// the value become blanks.
std::string set_key(std::string_view text, std::string_view key, std::string_view value);

}  // namespace qp::tmpfile
