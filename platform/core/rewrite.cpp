// Crash-safe rewrite of a text file.  Writers serialise on an flock of a
// sidecar lock file (never the target itself: the rename would hand the next
// writer a fresh, unlocked inode), read the current content under that lock
// so concurrent writers of different keys never lose each other's lines,
// write a temporary file in the same directory, and rename it over the
// target.  Readers take no lock: the rename shows them either the old or the
// new file.
//
// Nothing here resolves a link: the target's name is opened with O_NOFOLLOW
// through a descriptor of its directory, and the rename replaces whatever
// stands at the name (a link is replaced, its target left alone).  In a
// directory other users can write (/tmp) the file counts only when it
// conforms (regular, root's, not group/other-writable, one link; see
// safe_file.hpp): anything else reads as absent and is replaced by a file of
// root's with mode 0644; reads there are bounded (kTableLimit).  The sidecar
// lock of such a file lives in the root-only lock directory, not beside it.
// The lock wait is bounded by kLockWaitMs.
#include "core_internal.hpp"
#include "safe_file.hpp"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>

namespace qc {
namespace {

constexpr size_t kTempSuffixLen = 6;  // ".<name>.XXXXXX"

// A writer killed between creating its temporary file and the rename leaves
// the temporary behind.  Whoever holds the lock next knows no other writer of
// this file is active, so every ".<name>.XXXXXX" of the writer's own left
// there is stale; in a shared directory, files of other users are left alone.
void remove_stale_temps(int dirfd, const std::string &base) {
    int fd = ::dup(dirfd);
    if (fd < 0) return;
    qc::Dir d{::fdopendir(fd)};
    if (!d) {
        ::close(fd);
        return;
    }
    ::rewinddir(d.get());
    const std::string prefix = "." + base + ".";
    while (struct dirent *e = ::readdir(d.get())) {
        std::string_view name = e->d_name;
        if (name.size() != prefix.size() + kTempSuffixLen || name.substr(0, prefix.size()) != prefix) continue;
        struct stat st {};
        if (::fstatat(dirfd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode) ||
            st.st_uid != ::geteuid())
            continue;
        ::unlinkat(dirfd, e->d_name, 0);
    }
}

// Name of the sidecar lock of a file in a shared directory, inside the
// root-only lock directory: "rewrite" and the path with '/' and '%' escaped.
std::string shared_lock_name(const std::string &dir, const std::string &base) {
    std::string name = "rewrite";
    for (char c : (dir == "/" ? "" : dir) + "/" + base) {
        if (c == '/')
            name += "%2F";
        else if (c == '%')
            name += "%25";
        else
            name += c;
    }
    if (name.size() > 200) {
        // Too long for one name: a hash of the path stands in.
        char hex[17];
        snprintf(hex, sizeof hex, "%016zx", std::hash<std::string>{}(name));
        name = std::string("rewrite#") + hex;
    }
    return name;
}

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
    namespace sf = qp::safefile;
    std::string dir, base;
    if (!sf::split_path(path, dir, base)) {
        QC_FAIL(ERR_BAD_PARAMETER);
        return -1;
    }
    Fd dfd{sf::open_dir(dir.c_str())};
    if (!dfd.ok() && errno == ENOENT && make_dirs(dir, 0755) == 0) dfd.reset(sf::open_dir(dir.c_str()));
    if (!dfd.ok()) {
        QC_FAIL(ERR_OPEN_FAILED);
        return -1;
    }
    const bool shared = sf::dir_is_shared_fd(dfd.get());

    // The sidecar is 0600 (an older, wider one is narrowed): flock needs
    // only a read descriptor, so a readable lock file could be held by anyone.
    Fd lock{shared ? open_private_lock(shared_lock_name(dir, base)) : open_lock_at(dfd.get(), "." + base + ".lock")};
    if (!lock.ok()) {
        QC_FAIL(ERR_OPEN_FAILED);
        return -1;
    }
    if (lock_bounded(lock.get(), kLockWaitMs) != 0) {
        QC_FAIL(ERR_LOCK_FAILED);
        return -1;
    }
    remove_stale_temps(dfd.get(), base);

    bool exists = true;
    std::string old;
    struct stat st {};
    {
        Fd in{sf::open_read(dfd.get(), base.c_str(), shared)};
        if (!in.ok()) {
            // Missing, or (in a shared directory) not a file of ours: absent.
            if (errno != ENOENT && errno != sf::kUntrusted) {
                QC_FAIL(ERR_OPEN_FAILED);
                return -1;
            }
            exists = false;
        } else {
            if (::fstat(in.get(), &st) != 0) {
                QC_FAIL(ERR_OPEN_FAILED);
                return -1;
            }
            int rc = shared ? sf::read_bounded(in.get(), old, sf::kTableLimit) : read_whole_fd(in.get(), old);
            if (rc != 0) {
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

    // Owner and mode of the old file; a new one (or, in a shared directory,
    // one replacing a foreign file) is the writer's with 0644.  Only root may
    // give a file away; an unprivileged writer keeps its own ownership.
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    mode_t mode = 0644;
    if (exists) {
        if (st.st_uid != ::geteuid() || st.st_gid != ::getegid()) {
            uid = st.st_uid;
            gid = st.st_gid;
        }
        mode = st.st_mode & 07777;
    }
    const auto &pieces = out.pieces();
    int rc = sf::replace_pieces(dfd.get(), base.c_str(), pieces.data(), pieces.size(), mode, uid, gid);
    if (rc == EPERM && uid != static_cast<uid_t>(-1))
        rc = sf::replace_pieces(dfd.get(), base.c_str(), pieces.data(), pieces.size(), mode);
    if (rc != 0) {
        QC_FAIL(rc == EXDEV || rc == EBUSY || rc == EISDIR ? ERR_RENAME_FAILED : ERR_WRITE_FAILED);
        return -1;
    }
    return result;
}

}  // namespace qc
