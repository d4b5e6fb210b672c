// Writing one section of printer.conf, the step every writer of the file
// shares.  Log lines and the error slot carry the caller's place.
#pragma once

#include "qoracore.h"

namespace qp {

// Writes SECTION of printer.conf from HASH: appends it when the file has no
// such section, replaces it otherwise.  The caller holds the configuration
// lock.  0 on success; on failure the core's result (negative), with one log
// line at FILE:LINE.
int store_section(const char *section, PQLIBSZHASH hash, const char *file, int line) noexcept;

}  // namespace qp

#define QP_STORE_SECTION(section, hash) ::qp::store_section((section), (hash), __FILE_NAME__, __LINE__)
