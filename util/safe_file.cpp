// Safe access to files in directories that other users can write.
#include "safe_file.hpp"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdint.h>
#include <string.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace qp::safefile {
namespace {

bool shared_mode(const struct stat &st) { return (st.st_mode & (S_IWGRP | S_IWOTH)) != 0; }

// Owners whose files and directories are trusted: root, and the process's
// own user (the same when the library runs as root, as it does).
bool trusted_owner(uid_t uid) { return uid == 0 || uid == ::geteuid(); }

// A directory is shared when others can write it, or when its owner is not
// trusted (it could change its mode or plant links).
bool shared_dir(const struct stat &st) { return !trusted_owner(st.st_uid) || shared_mode(st); }

int close_keep_errno(int fd) {
    int e = errno;
    ::close(fd);
    errno = e;
    return -1;
}

bool write_all(int fd, const std::string_view *pieces, size_t count) {
    std::vector<struct iovec> iov;
    iov.reserve(count);
    for (size_t i = 0; i < count; ++i)
        if (!pieces[i].empty()) iov.push_back({const_cast<char *>(pieces[i].data()), pieces[i].size()});
    size_t next = 0;
    while (next < iov.size()) {
        const int n_iov = static_cast<int>(std::min<size_t>(iov.size() - next, IOV_MAX));
        ssize_t n = ::writev(fd, &iov[next], n_iov);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) {
            errno = EIO;
            return false;
        }
        auto done = static_cast<size_t>(n);
        while (next < iov.size() && done >= iov[next].iov_len) done -= iov[next++].iov_len;
        if (done > 0) {
            iov[next].iov_base = static_cast<char *>(iov[next].iov_base) + done;
            iov[next].iov_len -= done;
        }
    }
    return true;
}

}  // namespace

bool dir_is_shared_fd(int dirfd) {
    struct stat st {};
    return ::fstat(dirfd, &st) != 0 || shared_dir(st);
}

bool dir_is_shared(const char *dir) {
    struct stat st {};
    return ::stat(dir, &st) != 0 || shared_dir(st);
}

int open_dir(const char *dir) { return ::open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC); }

int open_read(int dirfd, const char *name, bool strict) {
    if (!name || !*name || strchr(name, '/')) {
        errno = EINVAL;
        return -1;
    }
    int fd = ::openat(dirfd, name, O_RDONLY | (strict ? O_NOFOLLOW : 0) | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        // A link at the name (ELOOP) is not a file of ours.
        if (errno == ELOOP && strict) errno = kUntrusted;
        return -1;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0) return close_keep_errno(fd);
    // A directory can be neither read nor replaced: an error, not absence.
    if (S_ISDIR(st.st_mode)) {
        ::close(fd);
        errno = EISDIR;
        return -1;
    }
    bool ok = S_ISREG(st.st_mode);
    if (ok && strict) ok = trusted_owner(st.st_uid) && !shared_mode(st) && st.st_nlink == 1;
    if (!ok) {
        ::close(fd);
        errno = kUntrusted;
        return -1;
    }
    // The file was opened non-blocking only so a FIFO could not hold the
    // open; reads of a regular file never block anyway.
    int fl = ::fcntl(fd, F_GETFL);
    if (fl >= 0) (void)::fcntl(fd, F_SETFL, fl & ~O_NONBLOCK);
    return fd;
}

int read_bounded(int fd, std::string &out, size_t limit) {
    out.clear();
    struct stat st {};
    size_t cap = 4096;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        if (st.st_size < 0 || static_cast<uint64_t>(st.st_size) > limit) return EFBIG;
        if (st.st_size > 0) cap = static_cast<size_t>(st.st_size) + 1;
    }
    cap = std::min(cap, limit + 1);
    out.resize(cap);
    size_t got = 0;
    for (;;) {
        if (got == out.size()) {
            if (out.size() > limit) {
                out.clear();
                return EFBIG;
            }
            out.resize(std::min(out.size() * 2, limit + 1));
        }
        ssize_t n = ::read(fd, out.data() + got, out.size() - got);
        if (n < 0) {
            if (errno == EINTR) continue;
            int err = errno ? errno : EIO;
            out.clear();
            return err;
        }
        if (n == 0) break;
        got += static_cast<size_t>(n);
    }
    if (got > limit) {
        out.clear();
        return EFBIG;
    }
    out.resize(got);
    return 0;
}

int read_file(const char *dir, const char *name, std::string &out, size_t limit, bool strict, bool *untrusted) {
    out.clear();
    if (untrusted) *untrusted = false;
    int dfd = open_dir(dir);
    if (dfd < 0) return errno == ENOENT || errno == ENOTDIR || errno == ELOOP ? ENOENT : errno;
    int fd = open_read(dfd, name, strict);
    int err = fd < 0 ? errno : 0;
    ::close(dfd);
    if (fd < 0) {
        if (err == kUntrusted) {
            if (untrusted) *untrusted = true;
            return ENOENT;
        }
        return err;
    }
    err = read_bounded(fd, out, limit);
    ::close(fd);
    return err;
}

bool split_path(std::string_view path, std::string &dir, std::string &name) {
    const size_t slash = path.rfind('/');
    // Assigned from views: gcc 12 mistakes assignments of short literals
    // here for overlapping copies (-Wrestrict).
    const std::string_view d = slash == std::string_view::npos ? std::string_view(".")
                               : slash == 0                    ? std::string_view("/")
                                                               : path.substr(0, slash);
    dir.assign(d.data(), d.size());
    name.assign(slash == std::string_view::npos ? path : path.substr(slash + 1));
    return !name.empty() && name != "." && name != "..";
}

int create_temp(int dirfd, const char *name, std::string &tmpname) {
    static constexpr char kChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    for (int attempt = 0; attempt < 100; ++attempt) {
        unsigned char rnd[6];
        if (::getrandom(rnd, sizeof rnd, 0) != static_cast<ssize_t>(sizeof rnd)) {
            for (size_t i = 0; i < sizeof rnd; ++i)
                rnd[i] = static_cast<unsigned char>((::getpid() * 31 + attempt * 7 + static_cast<int>(i)) & 0xff);
        }
        char suffix[sizeof rnd + 1];
        for (size_t i = 0; i < sizeof rnd; ++i) suffix[i] = kChars[rnd[i] % (sizeof kChars - 1)];
        suffix[sizeof rnd] = '\0';
        tmpname = std::string(".") + name + "." + suffix;
        int fd =
            ::openat(dirfd, tmpname.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY, 0600);
        if (fd >= 0) return fd;
        if (errno != EEXIST) return -1;
    }
    errno = EEXIST;
    return -1;
}

int replace_pieces(int dirfd, const char *name, const std::string_view *pieces, size_t count, mode_t mode, uid_t uid,
                   gid_t gid) {
    if (!name || !*name || strchr(name, '/')) return EINVAL;
    std::string tmp;
    int fd = create_temp(dirfd, name, tmp);
    if (fd < 0) return errno;
    int err = 0;
    // Owner before mode: a chown clears set-id bits that the chmod restores.
    if (!write_all(fd, pieces, count) ||
        ((uid != static_cast<uid_t>(-1) || gid != static_cast<gid_t>(-1)) && ::fchown(fd, uid, gid) != 0) ||
        ::fchmod(fd, mode & 07777) != 0 || ::fsync(fd) != 0)
        err = errno ? errno : EIO;
    if (::close(fd) != 0 && err == 0) err = errno;
    if (err == 0 && ::renameat(dirfd, tmp.c_str(), dirfd, name) != 0) err = errno;
    if (err != 0) {
        ::unlinkat(dirfd, tmp.c_str(), 0);
        return err;
    }
    // The rename is durable once the directory is; some file systems refuse
    // fsync on a directory, which does not undo the rename.
    (void)::fsync(dirfd);
    return 0;
}

int replace(int dirfd, const char *name, std::string_view data, mode_t mode, uid_t uid, gid_t gid) {
    return replace_pieces(dirfd, name, &data, 1, mode, uid, gid);
}

}  // namespace qp::safefile
