// Argument vectors for the CUPS tools: a fixed number of slots, each a
// separate heap string, the vector ended by the first empty slot.
#pragma once

#include <stdlib.h>
#include <string.h>

#include <array>
#include <cstddef>

namespace qp {

template <std::size_t N>
class ArgVec {
public:
    ArgVec() noexcept { slots_.fill(nullptr); }
    ArgVec(const ArgVec &) = delete;
    ArgVec &operator=(const ArgVec &) = delete;
    ~ArgVec() {
        for (char *s : slots_) ::free(s);
    }

    // Puts a copy of text into slot i; false when out of memory.  The last
    // slot stays empty so the vector is always ended.
    bool set(std::size_t i, const char *text) noexcept {
        if (i + 1 >= N) return false;
        char *copy = ::strdup(text);
        if (!copy) return false;
        ::free(slots_[i]);
        slots_[i] = copy;
        return true;
    }

    // Puts a zeroed heap buffer of the given size into slot i.
    char *set_buffer(std::size_t i, std::size_t size) noexcept {
        if (i + 1 >= N) return nullptr;
        char *buf = static_cast<char *>(::calloc(1, size));
        if (!buf) return nullptr;
        ::free(slots_[i]);
        slots_[i] = buf;
        return buf;
    }

    void clear(std::size_t i) noexcept {
        ::free(slots_[i]);
        slots_[i] = nullptr;
    }

    char *const *argv() const noexcept { return slots_.data(); }

private:
    std::array<char *, N> slots_;
};

}  // namespace qp
