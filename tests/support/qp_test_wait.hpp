#pragma once
#include <time.h>

namespace qpt {
template <class F>
bool wait_until(F &&cond, int timeout_ms) {
    struct timespec step = {0, 5 * 1000 * 1000};
    for (int waited = 0;; waited += 5) {
        if (cond()) return true;
        if (waited >= timeout_ms) return cond();
        nanosleep(&step, nullptr);
    }
}
}  // namespace qpt
