// Process checks over /proc.
#include "core_internal.hpp"

#include <ctype.h>
#include <dirent.h>
#include <string.h>

namespace {

// The kernel keeps at most 15 bytes of a process name (TASK_COMM_LEN - 1).
constexpr size_t kCommLen = 15;

bool all_digits(const char *s) {
    if (!*s) return false;
    for (; *s; ++s)
        if (!isdigit(static_cast<unsigned char>(*s))) return false;
    return true;
}

// Name and state of a process from /proc/<pid>/stat: "pid (comm) S ...".
// The name may itself hold blanks and parentheses; it ends at the last ')'.
bool read_stat(const std::string &dir, std::string &comm, char &state) {
    std::string data;
    if (qc::read_whole((dir + "/stat").c_str(), data) != 0) return false;
    size_t open = data.find('(');
    size_t close = data.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open || close + 2 >= data.size())
        return false;
    comm = data.substr(open + 1, close - open - 1);
    state = data[close + 2];
    return true;
}

std::string argv0_base(const std::string &dir) {
    std::string data;
    if (qc::read_whole((dir + "/cmdline").c_str(), data) != 0) return {};
    std::string argv0 = data.substr(0, data.find('\0'));
    size_t slash = argv0.rfind('/');
    return slash == std::string::npos ? argv0 : argv0.substr(slash + 1);
}

}  // namespace

extern "C" QLIBC_API int QLIBCIsProcAlive(const char *szName) {
    if (!szName || !*szName) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return 0;
    }
    const std::string name = szName;
    const bool long_name = name.size() > kCommLen;
    DIR *d = ::opendir("/proc");
    if (!d) {
        QC_FAIL(ERR_OPEN_FAILED);
        return 0;
    }
    int found = 0;
    try {
        while (struct dirent *e = ::readdir(d)) {
            if (!all_digits(e->d_name)) continue;
            std::string dir = std::string("/proc/") + e->d_name;
            std::string comm;
            char state = 0;
            // A zombie has exited; it only waits for its parent to reap it.
            if (!read_stat(dir, comm, state) || state == 'Z' || state == 'X') continue;
            if (!long_name ? comm == name : (comm == name.substr(0, kCommLen) && argv0_base(dir) == name)) {
                found = 1;
                break;
            }
        }
    } catch (...) {
        QC_FAIL(ERR_OUT_OF_MEMORY);
    }
    ::closedir(d);
    return found;
}
