// Safe access to files in directories that other users can write (/tmp).
//
// Policy: in a world-writable directory only a file that root could have
// written alone is trusted.  A name there is opened through a descriptor of
// its directory with O_NOFOLLOW | O_NONBLOCK, then checked with fstat: a
// regular file, owned by root (or by the process's own user, which is root
// for the library), not writable by group or others, exactly one link.
// Anything else (a symbolic link, a FIFO, a device, a hard link to another
// file, a file some other user created) is treated as ABSENT when read, and
// REPLACED when written: the new content goes into a fresh temporary file in
// the same directory, which a rename puts over the name, so what stood there
// is unlinked and never written through.
//
// Every read is bounded: over the limit is an error (EFBIG), never growth.
//   kTableLimit   1 MiB  tables (usbtab, nptab, section files)
//   kStatusLimit 64 KiB  status files (/tmp/usbip_<ID>)
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <string>
#include <string_view>

namespace qp::safefile {

inline constexpr size_t kTableLimit = size_t{1} << 20;
inline constexpr size_t kStatusLimit = size_t{64} << 10;

// errno value that open_read() reports for a file that exists but does not
// conform (so callers can log "untrusted" apart from "missing"); callers
// that only care whether there is a usable file treat it like ENOENT.
inline constexpr int kUntrusted = EPERM;

// True when the directory (by path or descriptor) is not root's (nor the
// process's own user's) or is writable by group or others (sticky or not): such a directory needs the
// checks above.  A directory that cannot be stat'ed counts as shared.
bool dir_is_shared(const char *dir);
bool dir_is_shared_fd(int dirfd);

// Opens the directory (O_DIRECTORY; a link to a directory is followed, and
// where it leads decides whether the directory is shared).  -1 with errno.
int open_dir(const char *dir);

// Opens NAME (a plain name, no '/') in the directory for reading, never
// blocking on a FIFO.  With `strict` (shared directories), the name is not
// followed and the file must conform (above) or the result is -1 with errno
// kUntrusted.  Without it (directories only root can write, where a link is
// root's own doing), a link is followed and only a non-regular file is
// refused (-1, kUntrusted).  A missing file is -1 with ENOENT; a directory
// (which can be neither read nor replaced) is -1 with EISDIR in both modes.
int open_read(int dirfd, const char *name, bool strict = true);

// Reads the whole descriptor into out, at most `limit` bytes: EFBIG when the
// file is larger (checked against fstat first and while reading), else 0 or
// the errno of the failed read.  out is left empty on error.
int read_bounded(int fd, std::string &out, size_t limit);

// open_read + read_bounded of DIR/NAME in one call: 0, ENOENT (missing or,
// in strict mode, not conforming: `untrusted` then set), EFBIG, or errno.
int read_file(const char *dir, const char *name, std::string &out, size_t limit, bool strict = true,
              bool *untrusted = nullptr);

// Splits a path into its directory ("." when none, "/" for the root) and
// last component; false when the last component is empty, "." or "..".
bool split_path(std::string_view path, std::string &dir, std::string &name);

// Replaces NAME in the directory by `data` atomically: a temporary
// ".<name>.XXXXXX" is created with O_CREAT | O_EXCL | O_NOFOLLOW, mode 0600,
// written, given `mode` and (when uid/gid are not -1) the owner, fsync'ed and
// renamed over NAME; then the directory is fsync'ed.  Whatever stood at NAME
// is replaced, never opened.  0 or errno (the temporary is removed on error).
int replace(int dirfd, const char *name, std::string_view data, mode_t mode, uid_t uid = static_cast<uid_t>(-1),
            gid_t gid = static_cast<gid_t>(-1));

// Same, with the content given as pieces written in order.
int replace_pieces(int dirfd, const char *name, const std::string_view *pieces, size_t count, mode_t mode,
                   uid_t uid = static_cast<uid_t>(-1), gid_t gid = static_cast<gid_t>(-1));

// Creates a temporary ".<name>.XXXXXX" in the directory (O_EXCL|O_NOFOLLOW,
// 0600, close-on-exec); fills tmpname.  -1 with errno on failure.
int create_temp(int dirfd, const char *name, std::string &tmpname);

}  // namespace qp::safefile
