// Names and addresses that callers hand in and that become a path component
// or an argument of a tool.  One policy for each kind, used by every function
// that composes a path or an argument vector from them.
#pragma once

#include <cstddef>

namespace qp {

// Longest printer ID and queue name: the width of the records' fields less
// the terminating NUL.
inline constexpr std::size_t kIdMax = 127;
inline constexpr std::size_t kQueueMax = 127;
// Longest PPD name: "NAME.ppd" must be one directory entry.
inline constexpr std::size_t kPpdNameMax = 255 - 4;

// A name that becomes one path component or one tool argument: not empty, at
// most max_len bytes, no '/', not "..", no leading '-', no control byte.
bool name_ok(const char *name, std::size_t max_len) noexcept;

// A printer's address for ping and snmpwalk: an IPv4 or IPv6 address
// (inet_pton), or a host name of letters, digits, '.', '_' and '-' that
// does not start with '-' (at most 253 bytes).
bool address_ok(const char *addr) noexcept;

// A file for lpr: a regular file (following links, as lpr itself would)
// whose name does not start with '-'.
bool print_file_ok(const char *path) noexcept;

// The queue name stored for a printer, whole, into buf: 0, or -1 (one line
// logged) when there is none, when it is not a usable queue name, or when it
// does not fit size bytes; a name is never cut to fit.
int stored_queue_name(const char *printer_id, char *buf, std::size_t size);

}  // namespace qp
