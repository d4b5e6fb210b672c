// Process checks over /proc.  Only processes of root count (and, for the
// daemons below, of the account they drop to): any user can name a process
// "cupsd".  The appliance's daemons must moreover run their own program.
#include "core_internal.hpp"

#include <ctype.h>
#include <dirent.h>
#include <pwd.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

namespace {

// The kernel keeps at most 15 bytes of a process name (TASK_COMM_LEN - 1).
constexpr size_t kCommLen = 15;

// Daemons whose process must run a known program; `account` is the system
// user the daemon switches to after starting as root (none: root only).
struct Daemon {
    const char *name;
    const char *program;
    const char *account;
};
constexpr Daemon kDaemons[] = {
    {"cupsd", "/usr/sbin/cupsd", nullptr},
    {"avahi-daemon", "/usr/sbin/avahi-daemon", "avahi"},
};

const Daemon *find_daemon(const std::string &name) {
    for (const auto &d : kDaemons)
        if (name == d.name) return &d;
    return nullptr;
}

bool account_uid(const char *account, uid_t &uid) {
    if (!account) return false;
    struct passwd pw {
    }, *found = nullptr;
    char buf[1024];
    if (::getpwnam_r(account, &pw, buf, sizeof buf, &found) != 0 || !found) return false;
    uid = found->pw_uid;
    return true;
}

// The program a process runs, as /proc/<pid>/exe names it; a program
// replaced on disk since it started shows " (deleted)", which still counts.
bool runs_program(const std::string &dir, const char *program) {
    char target[4096];
    ssize_t n = ::readlink((dir + "/exe").c_str(), target, sizeof target - 1);
    if (n <= 0) return false;
    std::string_view t(target, static_cast<size_t>(n));
    constexpr std::string_view kDeleted = " (deleted)";
    if (t.size() > kDeleted.size() && t.substr(t.size() - kDeleted.size()) == kDeleted)
        t.remove_suffix(kDeleted.size());
    return t == program;
}

// Real and effective user of a process from /proc/<pid>/status ("Uid:" real
// effective saved fs).  The owner of /proc/<pid> itself is no guide: a
// process that makes itself non-dumpable shows as root's there.
bool process_uids(const std::string &dir, uid_t &real, uid_t &effective) {
    std::string data;
    if (qc::read_whole((dir + "/status").c_str(), data) != 0) return false;
    size_t at = data.find("\nUid:");
    if (at == std::string::npos) return false;
    unsigned long r = 0, e = 0;
    if (sscanf(data.c_str() + at + 5, " %lu %lu", &r, &e) != 2) return false;
    real = static_cast<uid_t>(r);
    effective = static_cast<uid_t>(e);
    return true;
}

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
    // Processes come and go while /proc is read: a process whose files
    // cannot be read is passed over and leaves no error behind; so does a
    // /proc that cannot be listed (nothing is seen running).
    qc::Dir d{::opendir("/proc")};
    if (!d) return 0;
    int found = 0;
    try {
        const std::string name = szName;
        const bool long_name = name.size() > kCommLen;
        const Daemon *daemon = find_daemon(name);
        uid_t account = 0;
        const bool has_account = daemon && account_uid(daemon->account, account);
        while (struct dirent *e = ::readdir(d.get())) {
            if (!all_digits(e->d_name)) continue;
            std::string dir = std::string("/proc/") + e->d_name;
            std::string comm;
            char state = 0;
            // A zombie has exited; it only waits for its parent to reap it.
            if (!read_stat(dir, comm, state) || state == 'Z' || state == 'X') continue;
            if (!long_name ? comm != name : (comm != name.substr(0, kCommLen) || argv0_base(dir) != name)) continue;
            uid_t real = 0, effective = 0;
            if (!process_uids(dir, real, effective)) continue;
            auto trusted = [&](uid_t u) { return u == 0 || (has_account && u == account); };
            if (!trusted(real) || !trusted(effective)) continue;
            if (daemon && !runs_program(dir, daemon->program)) continue;
            found = 1;
            break;
        }
    } catch (...) {
        // Out of memory: nothing more can be looked at.
    }
    return found;
}
