// File existence, temporary files and the appliance's file locks.
#include "core_internal.hpp"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <mutex>

namespace {

constexpr const char *kUsbIdMapLockFile = "/run/qorasdk/lock/lock_usbidmap";
constexpr unsigned int kLockModeMask = 0xFFFFu;

std::string parent_dir(const std::string &path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0) return {};
    return path.substr(0, slash);
}

// Opens (creating it and its directory if needed) a lock file.
int open_lock_file(const char *path) {
    int fd = ::open(path, O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0 && errno == ENOENT && qc::make_dirs(parent_dir(path), 0755) == 0)
        fd = ::open(path, O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
    return fd;
}

// Named locks held by this process: lock number -> the locked descriptor.
// flock belongs to the open file description, so a second thread of this
// process opening the lock file again waits for the first like any other
// process would; the table only remembers which descriptor to close.
std::mutex g_named_mutex;
std::map<unsigned int, int> g_named_locks;

}  // namespace

extern "C" QLIBC_API int QLIBCFileExist(const char *szPath) {
    if (!szPath || !*szPath) return 0;
    struct stat st {};
    return ::stat(szPath, &st) == 0 ? 1 : 0;
}

extern "C" QLIBC_API FILE *QLIBCFileTempFileOpen(char *szTemplate) {
    if (!szTemplate) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return nullptr;
    }
    int fd = ::mkostemp(szTemplate, O_CLOEXEC);
    if (fd < 0) {
        QC_FAIL(ERR_OPEN_FAILED);
        return nullptr;
    }
    FILE *fp = ::fdopen(fd, "w");
    if (!fp) {
        ::close(fd);
        ::unlink(szTemplate);
        QC_FAIL(ERR_OPEN_FAILED);
        return nullptr;
    }
    return fp;
}

extern "C" QLIBC_API int QLIBCFileLockByFile(const char *szFile, int iMode, int *pFd) {
    // Mode 1, exclusive and never waiting, is the only mode the callers use.
    if (!szFile || !*szFile || !pFd || iMode != 1) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    qc::Fd fd{open_lock_file(szFile)};
    if (!fd.ok()) {
        QC_FAIL(ERR_OPEN_FAILED);
        return -1;
    }
    while (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EINTR) continue;
        if (errno == EWOULDBLOCK) return 0;
        QC_FAIL(ERR_LOCK_FAILED);
        return -1;
    }
    *pFd = fd.release();
    return 1;
}

extern "C" QLIBC_API int QLIBCFileLock(unsigned int uRequest, int iWaitLimit) {
    const unsigned int lock = uRequest & ~kLockModeMask;
    const unsigned int mode = uRequest & kLockModeMask;
    if (lock != LOCK_USBIDMAP || mode != LOCK_MODE_EX_WAIT) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    qc::Fd fd{open_lock_file(kUsbIdMapLockFile)};
    if (!fd.ok()) {
        QC_FAIL(ERR_OPEN_FAILED);
        return -1;
    }
    // Poll rather than block so the wait limit holds without a timer signal.
    struct timespec start {};
    ::clock_gettime(CLOCK_MONOTONIC, &start);
    const long long limit_ms = iWaitLimit > 0 ? static_cast<long long>(iWaitLimit) * 1000 : 0;
    for (;;) {
        if (::flock(fd.get(), LOCK_EX | LOCK_NB) == 0) break;
        if (errno != EWOULDBLOCK && errno != EINTR) {
            QC_FAIL(ERR_LOCK_FAILED);
            return -1;
        }
        struct timespec now {};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        long long waited = (now.tv_sec - start.tv_sec) * 1000LL + (now.tv_nsec - start.tv_nsec) / 1000000;
        if (waited >= limit_ms) {
            QC_FAIL(ERR_LOCK_FAILED);
            return -1;
        }
        struct timespec tick {0, 10 * 1000 * 1000};
        ::nanosleep(&tick, nullptr);
    }
    std::lock_guard<std::mutex> guard(g_named_mutex);
    auto [it, inserted] = g_named_locks.emplace(lock, fd.get());
    if (!inserted) {
        // Another descriptor of this process is recorded for the lock, yet the
        // flock above succeeded: that one is stale.  Keep the live one.
        ::close(it->second);
        it->second = fd.get();
    }
    fd.release();
    return 0;
}

extern "C" QLIBC_API int QLIBCFileUnlock(unsigned int uLock) {
    const unsigned int lock = uLock & ~kLockModeMask;
    std::lock_guard<std::mutex> guard(g_named_mutex);
    auto it = g_named_locks.find(lock);
    if (it == g_named_locks.end()) {
        QC_FAIL(ERR_UNLOCK_FAILED);
        return -1;
    }
    int fd = it->second;
    g_named_locks.erase(it);
    if (::close(fd) != 0 && errno != EINTR) {
        QC_FAIL(ERR_UNLOCK_FAILED);
        return -1;
    }
    return 0;
}
