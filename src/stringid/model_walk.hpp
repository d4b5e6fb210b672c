// The pair-by-pair walk of a device ID string that model detection uses,
// kept apart from the helper library so that it can be exercised on its own.
#pragma once

#include <cstddef>
#include <string_view>

namespace qp {

// One pair as the walk reads it: a key of 1 to 1024 characters up to a colon
// (a semicolon does not end it), the colon, and a value of 1 to 1024
// characters up to a semicolon (a colon does not end it).  length counts the
// key, the colon and the value, and is the walk's step to the next pair (past
// the semicolon when one follows).  Nothing is skipped, blanks included.
struct DevIdPair {
    std::string_view key;
    std::string_view value;
    std::size_t length = 0;
};

// Scans one pair at the start of s; false when it does not scan whole (empty
// key or value, a key longer than 1024 characters, no colon).
bool scan_devid_pair(std::string_view s, DevIdPair &pair) noexcept;

// What the walk found: the value of the first "MFG" or "MANUFACTURER" pair
// and of the first "MDL" or "MODEL" pair (keys matched whole, with case).
// The views point into the walked string.
struct DetectedModel {
    bool has_maker = false;
    bool has_model = false;
    std::string_view maker;
    std::string_view model;
};

DetectedModel walk_devid_pairs(std::string_view s) noexcept;

}  // namespace qp
