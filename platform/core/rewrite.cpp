// Crash-safe rewrite of a text file.  Writers serialise on an flock of a
// sidecar file ".<name>.lock" beside the target (never the target itself: the
// rename would hand the next writer a fresh, unlocked inode), read the current
// content under that lock so concurrent writers of different keys never lose
// each other's lines, write a temporary file in the same directory, and
// rename it over the target.  Readers take no lock: the rename shows them
// either the old or the new file.
#include "core_internal.hpp"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>

namespace qc {
namespace {

constexpr size_t kTempSuffixLen = 6;  // mkostemp's XXXXXX

// A writer killed between creating its temporary file and the rename leaves
// the temporary behind.  Whoever holds the lock next knows no other writer of
// this file is active, so every ".<name>.XXXXXX" left there is stale.
void remove_stale_temps(const std::string &dir, const std::string &base) {
    DIR *d = ::opendir(dir.c_str());
    if (!d) return;
    const std::string prefix = "." + base + ".";
    while (struct dirent *e = ::readdir(d)) {
        std::string_view name = e->d_name;
        if (name.size() != prefix.size() + kTempSuffixLen || name.substr(0, prefix.size()) != prefix) continue;
        if (name.substr(prefix.size()) == "lock") continue;
        ::unlinkat(::dirfd(d), e->d_name, 0);
    }
    ::closedir(d);
}

// Writes the pieces in order with as few writev calls as the kernel allows.
bool write_pieces(int fd, const std::vector<std::string_view> &pieces) {
    std::vector<struct iovec> iov;
    iov.reserve(pieces.size());
    for (std::string_view p : pieces) iov.push_back({const_cast<char *>(p.data()), p.size()});
    size_t next = 0;
    while (next < iov.size()) {
        const int count = static_cast<int>(std::min<size_t>(iov.size() - next, IOV_MAX));
        ssize_t n = ::writev(fd, &iov[next], count);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) return false;
        // Step over what went out; a short write leaves the rest of a piece.
        auto done = static_cast<size_t>(n);
        while (next < iov.size() && done >= iov[next].iov_len) done -= iov[next++].iov_len;
        if (done > 0) {
            iov[next].iov_base = static_cast<char *>(iov[next].iov_base) + done;
            iov[next].iov_len -= done;
        }
    }
    return true;
}

// Unlinks the temporary file unless the rename took it.
struct TempName {
    std::string path;
    bool committed = false;
    ~TempName() {
        if (!path.empty() && !committed) ::unlink(path.c_str());
    }
};

}  // namespace

namespace {

// True when the pieces, written in order, would reproduce `old` exactly.
bool same_content(const std::vector<std::string_view> &pieces, std::string_view old) {
    size_t total = 0;
    for (std::string_view p : pieces) total += p.size();
    if (total != old.size()) return false;
    size_t at = 0;
    for (std::string_view p : pieces) {
        if (old.compare(at, p.size(), p) != 0) return false;
        at += p.size();
    }
    return true;
}

}  // namespace

int rewrite_file(const char *path, const EditFn &edit) {
    std::string target = path;
    // Replace the file a symbolic link points at, not the link.
    struct stat lst {};
    if (::lstat(path, &lst) == 0 && S_ISLNK(lst.st_mode)) {
        if (char *real = ::realpath(path, nullptr)) {
            target = real;
            free(real);
        }
    }
    size_t slash = target.rfind('/');
    std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : target.substr(0, slash));
    std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
    if (base.empty() || base == "." || base == "..") {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    std::string dir_prefix = dir == "/" ? "/" : dir + "/";

    std::string lock_path = dir_prefix + "." + base + ".lock";
    Fd lock{::open(lock_path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644)};
    if (!lock.ok() && errno == ENOENT && make_dirs(dir, 0755) == 0)
        lock.reset(::open(lock_path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644));
    if (!lock.ok()) {
        QC_FAIL(ERR_OPEN_FAILED);
        return -1;
    }
    while (::flock(lock.get(), LOCK_EX) != 0) {
        if (errno == EINTR) continue;
        QC_FAIL(ERR_LOCK_FAILED);
        return -1;
    }
    remove_stale_temps(dir, base);

    bool exists = true;
    std::string old;
    struct stat st {};
    {
        Fd in{::open(target.c_str(), O_RDONLY | O_CLOEXEC)};
        if (!in.ok()) {
            if (errno != ENOENT) {
                QC_FAIL(ERR_OPEN_FAILED);
                return -1;
            }
            exists = false;
        } else {
            if (::fstat(in.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
                QC_FAIL(ERR_OPEN_FAILED);
                return -1;
            }
            if (read_whole_fd(in.get(), old) != 0) {
                QC_FAIL(ERR_READ_FAILED);
                return -1;
            }
        }
    }

    Splice out;
    int result = edit(exists, old, out);
    if (result <= 0) return result;
    // Writing back the very bytes the file holds would only cost a temp
    // file, two fsyncs and a rename: re-plugging a known printer rewrites
    // its section with the values it already has.
    if (exists && same_content(out.pieces(), old)) return result;

    std::string tmpl = dir_prefix + "." + base + ".XXXXXX";
    TempName tmp;
    Fd tfd{::mkostemp(tmpl.data(), O_CLOEXEC)};
    if (!tfd.ok()) {
        QC_FAIL(ERR_OPEN_FAILED);
        return -1;
    }
    tmp.path = tmpl;
    if (!write_pieces(tfd.get(), out.pieces())) {
        QC_FAIL(ERR_WRITE_FAILED);
        return -1;
    }
    // Owner before mode: a chown clears set-id bits that the chmod restores.
    if (exists && (st.st_uid != ::geteuid() || st.st_gid != ::getegid())) {
        // Only root may give a file away; an unprivileged writer keeps its own ownership.
        (void)::fchown(tfd.get(), st.st_uid, st.st_gid);
    }
    if (::fchmod(tfd.get(), exists ? (st.st_mode & 07777) : 0644) != 0 || ::fsync(tfd.get()) != 0 ||
        ::close(tfd.release()) != 0) {
        QC_FAIL(ERR_WRITE_FAILED);
        return -1;
    }
    if (::rename(tmp.path.c_str(), target.c_str()) != 0) {
        QC_FAIL(ERR_RENAME_FAILED);
        return -1;
    }
    tmp.committed = true;
    // The rename is only durable once the directory is; some file systems
    // refuse fsync on a directory, which does not undo the rename.
    Fd dfd{::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (dfd.ok()) (void)::fsync(dfd.get());
    return result;
}

}  // namespace qc
