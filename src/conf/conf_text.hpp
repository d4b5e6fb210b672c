// Text helpers for the fixed-width fields of the library's records.
//
// Every field of PrinterConf and PrinterGoogleInfo is meant to hold a
// NUL-terminated text, but the record comes from a caller: a field filled to
// its last byte must not run on into the next field.  A field is therefore
// read up to its first NUL and never beyond its width less one byte, which
// is all a well-formed field can hold.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace qp {

template <std::size_t N>
std::string_view field_view(const char (&field)[N]) noexcept {
    static_assert(N > 0);
    return {field, ::strnlen(field, N - 1)};
}

// The field as a C string of its own (for the core library's calls).
template <std::size_t N>
std::string field_text(const char (&field)[N]) {
    return std::string(field_view(field));
}

// Copies src into dst, cut to dst_size - 1 bytes and always terminated.
inline void copy_cut(char *dst, std::size_t dst_size, std::string_view src) noexcept {
    if (dst_size == 0) return;
    std::size_t n = src.size() < dst_size - 1 ? src.size() : dst_size - 1;
    if (n) std::memcpy(dst, src.data(), n);
    dst[n] = '\0';
}

template <std::size_t N>
void copy_cut(char (&dst)[N], std::string_view src) noexcept {
    copy_cut(dst, N, src);
}

}  // namespace qp
