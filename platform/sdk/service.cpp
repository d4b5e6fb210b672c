// The appliance's services as the printer library sees them: whether one runs,
// and starting one and waiting until it answers.
#include "qoracore.h"
#include "qorasdk.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#define SDK_FAIL(code) QLIBCErrSetEx((code), __FILE_NAME__, __LINE__)

namespace {

struct Service {
    const char *name;     // as callers name it
    const char *process;  // its process name; the core library also checks
                          // that the process runs `program` as root (or as
                          // the account the daemon drops to)
    const char *program;  // absolute path; it puts itself in the background
    const char *option;   // one argument or NULL
    const char *socket;   // unix socket that accepts once the service is ready
};

constexpr Service kServices[] = {
    {"cupsd", "cupsd", "/usr/sbin/cupsd", nullptr, "/run/cups/cups.sock"},
    {"avahi", "avahi-daemon", "/usr/sbin/avahi-daemon", "-D", "/run/avahi-daemon/socket"},
};

constexpr long kPollMs = 20;
constexpr long kReadyLimitMs = 10000;

const Service *find_service(const char *name) {
    if (!name) return nullptr;
    for (const auto &s : kServices)
        if (strcmp(s.name, name) == 0) return &s;
    return nullptr;
}

bool socket_answers(const char *path) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path, sizeof addr.sun_path - 1);
    int rc;
    do {
        rc = ::connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr);
    } while (rc != 0 && errno == EINTR);
    ::close(fd);
    return rc == 0;
}

bool ready(const Service &s) { return QLIBCIsProcAlive(s.process) && socket_answers(s.socket); }

long long now_ms() {
    struct timespec ts {};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

extern "C" QLIBSDK_API int QLIBServiceIsRunning(const char *szService) {
    const Service *s = find_service(szService);
    return s && QLIBCIsProcAlive(s->process) ? 1 : 0;
}

extern "C" QLIBSDK_API int QLIBServiceStart(const char *szService, int iOptions) {
    (void)iOptions;
    const Service *s = find_service(szService);
    if (!s) {
        SDK_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    if (ready(*s)) return 0;
    // A service that runs but does not answer yet is starting: wait for it
    // rather than start a second copy.
    if (!QLIBCIsProcAlive(s->process)) {
        char *const argv[] = {const_cast<char *>(s->program), const_cast<char *>(s->option), nullptr};
        int rc = QLIBCExecv(s->program, argv, 1);
        if (rc != 0) {
            // A negative result set the slot already; an exit status did not.
            if (rc > 0) SDK_FAIL(ERR_EXTERNAL_FAILED);
            return -1;
        }
    }
    const long long deadline = now_ms() + kReadyLimitMs;
    for (;;) {
        if (ready(*s)) return 0;
        if (now_ms() >= deadline) break;
        struct timespec tick {
            0, kPollMs * 1000 * 1000
        };
        ::nanosleep(&tick, nullptr);
    }
    SDK_FAIL(ERR_EXTERNAL_FAILED);
    return -1;
}
