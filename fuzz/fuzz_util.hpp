// Helpers shared by the fuzz targets: a failed check aborts (libFuzzer keeps
// the input), output buffers end right at an unmapped page, and recorded
// text is handed to the readers as a stream.
#pragma once

#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace qpfuzz {

inline void check(bool ok) {
    if (!ok) std::abort();
}

// A buffer of n bytes (n at most one page) whose last byte is followed by a
// page that faults on any access: a write or read past the size given stops
// there.  Filled with 0x5a.  Each of the four slots is a buffer of its own.
inline char *guarded(size_t n, int slot = 0) {
    static char *base[4] = {};
    const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    check(slot >= 0 && slot < 4 && n <= page);
    if (!base[slot]) {
        void *p = ::mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        check(p != MAP_FAILED);
        check(::mprotect(static_cast<char *>(p) + page, page, PROT_NONE) == 0);
        base[slot] = static_cast<char *>(p) + page;
    }
    ::memset(base[slot] - n, 0x5a, n);
    return base[slot] - n;
}

// True when the n bytes at p are untouched since guarded().
inline bool untouched(const char *p, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (p[i] != 0x5a) return false;
    return true;
}

// The text as a read-only stream (any bytes, NULs included).
inline FILE *stream(const std::string &text) {
    if (text.empty()) return std::fopen("/dev/null", "re");
    return ::fmemopen(const_cast<char *>(text.data()), text.size(), "r");
}

inline bool contains(std::string_view hay, std::string_view needle) {
    return hay.find(needle) != std::string_view::npos;
}

// The text ending with a newline (so that lines added after it stay apart).
inline std::string closed(std::string text) {
    if (!text.empty() && text.back() != '\n') text += '\n';
    return text;
}

}  // namespace qpfuzz
