// File existence, temporary files and the appliance's file locks.
#include "core_internal.hpp"
#include "safe_file.hpp"

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

constexpr const char *kUsbIdMapLock = "lock_usbidmap";
constexpr unsigned int kLockModeMask = 0xFFFFu;

// Opens (creating it and its directory if needed) a lock file.
int open_lock_file(const char *path) { return qc::open_lock_path(path); }

// Named locks held by this process: lock number -> the locked descriptor.
// flock belongs to the open file description, so a second thread of this
// process opening the lock file again waits for the first like any other
// process would; the table only remembers which descriptor to close.
std::mutex g_named_mutex;
std::map<unsigned int, int> g_named_locks;

}  // namespace

namespace qc {

int open_lock_path(const std::string &path) {
    std::string dir, name;
    if (!qp::safefile::split_path(path, dir, name)) {
        errno = EINVAL;
        return -1;
    }
    // The lock directory itself must not be a link (ELOOP): it is checked,
    // not whatever a link would lead to.
    auto open_lock_dir = [&] { return ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); };
    Fd dfd{open_lock_dir()};
    if (!dfd.ok() && errno == ENOENT && make_dirs(dir, 0755) == 0) dfd.reset(open_lock_dir());
    if (!dfd.ok()) return -1;
    return open_lock_at(dfd.get(), name);
}

int open_lock_at(int dirfd, const std::string &name) {
    // A directory someone else can write would let them plant or hold the lock.
    struct stat st {};
    if (::fstat(dirfd, &st) != 0) return -1;
    if (st.st_uid != ::geteuid() || (st.st_mode & (S_IWGRP | S_IWOTH))) {
        errno = EPERM;
        return -1;
    }
    Fd fd{::openat(dirfd, name.c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0600)};
    if (!fd.ok()) return -1;
    if (::fstat(fd.get(), &st) != 0) return -1;
    if (!S_ISREG(st.st_mode) || st.st_uid != ::geteuid()) {
        errno = EPERM;
        return -1;
    }
    // A lock file left readable by an older version: anyone could open it and hold the lock.
    if ((st.st_mode & 077) && ::fchmod(fd.get(), 0600) != 0) return -1;
    return fd.release();
}

int open_private_lock(const std::string &name) { return open_lock_path(std::string(kLockDir) + "/" + name); }

int lock_bounded(int fd, long long limit_ms) {
    struct timespec start {};
    ::clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0) return 0;
        if (errno != EWOULDBLOCK && errno != EINTR) return errno;
        struct timespec now {};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        long long waited = (now.tv_sec - start.tv_sec) * 1000LL + (now.tv_nsec - start.tv_nsec) / 1000000;
        if (waited >= limit_ms) return EWOULDBLOCK;
        struct timespec tick {
            0, 10 * 1000 * 1000
        };
        ::nanosleep(&tick, nullptr);
    }
}

}  // namespace qc

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
    qc::Fd fd{qc::open_private_lock(kUsbIdMapLock)};
    if (!fd.ok()) {
        QC_FAIL(ERR_OPEN_FAILED);
        return -1;
    }
    // Poll rather than block so the wait limit holds without a timer signal.
    const long long limit_ms = iWaitLimit > 0 ? static_cast<long long>(iWaitLimit) * 1000 : 0;
    if (qc::lock_bounded(fd.get(), limit_ms) != 0) {
        QC_FAIL(ERR_LOCK_FAILED);
        return -1;
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
