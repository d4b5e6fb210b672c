// Helpers shared by the core library's source files (not exported).
#pragma once

#include "qoracore.h"

#include <dirent.h>
#include <sys/types.h>

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

// Records a failure in the calling thread's error slot with this file and line.
#define QC_FAIL(code) QLIBCErrSetEx((code), __FILE_NAME__, __LINE__)

namespace qc {

// Closes a descriptor on scope exit.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    Fd(Fd &&o) noexcept : fd_(o.release()) {}
    Fd &operator=(Fd &&o) noexcept;
    ~Fd();
    int get() const { return fd_; }
    bool ok() const { return fd_ >= 0; }
    int release() {
        int f = fd_;
        fd_ = -1;
        return f;
    }
    void reset(int fd = -1);

private:
    int fd_ = -1;
};

// A directory stream, closed on scope exit.
struct DirCloser {
    void operator()(DIR *d) const { ::closedir(d); }
};
using Dir = std::unique_ptr<DIR, DirCloser>;

// One line of a text file: its bytes without the line end, and the line end
// as it stood ("\n", "\r\n" or "" for a last line without one).  Writers put
// untouched lines back from these two parts, byte for byte.
struct Line {
    std::string_view text;
    std::string_view end;
    // The whole line, text and end, as it stands in the file.
    std::string_view whole() const { return {text.data(), text.size() + end.size()}; }
};

// Steps through the lines of data: fills line with the one starting at pos
// and moves pos past it; false once pos is at the end.
bool next_line(std::string_view data, size_t &pos, Line &line);

// isspace() for the C locale, on bytes of any value.
bool is_blank(unsigned char c);
std::string_view trim(std::string_view s);

// Replaces every control byte except tab (so CR and LF too) by a blank, so a
// key or value can never start a line of its own.
std::string neutralise(std::string_view s);

// Checks that a caller's line format holds exactly two "%s" and nothing else
// that printf would interpret ("%%" allowed).
bool format_ok(const char *fmt);
// printf of the two strings through a checked format.
std::string format_line(const char *fmt, const std::string &a, const std::string &b);

// Copies s into buf (size cb > 0), cut to fit, NUL-terminated; returns the copied length.
int copy_out(std::string_view s, char *buf, int cb);

// Reads a whole file.  0 on success, ENOENT when it does not exist, else errno.
int read_whole(const char *path, std::string &out);
int read_whole_fd(int fd, std::string &out);
// Reads a table (key-value or section file) without ever blocking on a FIFO:
// in a shared directory only a conforming file counts (anything else is
// ENOENT) and over qp::safefile::kTableLimit is EFBIG; elsewhere a
// non-regular file is ENOENT.  0 or errno.
int read_table(const char *path, std::string &out);
// read_table that records its failure in the error slot (ERR_OPEN_FAILED for
// a missing file, ERR_READ_FAILED otherwise); 0 or -1.
int read_table_or_fail(const char *path, std::string &out);

// Creates the directory and its parents (mode for new ones); 0 or errno.
int make_dirs(const std::string &dir, mode_t mode);

// ---- lock files ----
// Lock files are mode 0600 and live only in directories that no one but
// their owner (root) can write; the named locks and the sidecar locks of
// files in shared directories live in kLockDir.
inline constexpr const char *kLockDir = "/run/qorasdk/lock";
// Longest wait for a rewrite's sidecar lock before the rewrite fails.
inline constexpr long long kLockWaitMs = 30000;
// Opens (creating it 0600, and a missing directory 0755) the lock file at
// path, whose directory must be a real directory (not a link) owned by this
// user and not writable by group or others.  -1 with errno (EPERM for a refused place).
int open_lock_path(const std::string &path);
// The same for a name in an open directory (its owner and mode checked).
int open_lock_at(int dirfd, const std::string &name);
// The same for a name in kLockDir.
int open_private_lock(const std::string &name);
// flock LOCK_EX polled with LOCK_NB every 10 ms for at most limit_ms:
// 0 when taken, EWOULDBLOCK when the time ran out, else errno.
int lock_bounded(int fd, long long limit_ms);

// The new content of a rewritten file, as pieces written in order: runs of
// the old content (views, written straight from the buffer they were read
// into, so an edit of one line of a large file copies nothing) and new text.
class Splice {
public:
    // Appends bytes that outlive the splice (a piece of the old content).
    void keep(std::string_view bytes);
    // Appends new text; the splice owns it.
    void add(std::string text);
    // Appends a line end unless the content is empty or already ends with one.
    void ensure_newline();
    const std::vector<std::string_view> &pieces() const { return pieces_; }

private:
    std::vector<std::string_view> pieces_;
    std::deque<std::string> owned_;  // a deque never moves what it holds
};

// Rewrites a file crash-safely under its sidecar lock:
//   edit(exists, old, out) sees the current content (exists false when the
//   file is missing) and returns <0 to fail (slot already set), 0 to leave
//   the file as it is, >0 to replace it with what it put into `out`.
// The result is edit's result, or -1 with the slot set when the rewrite failed.
using EditFn = std::function<int(bool exists, std::string_view old, Splice &out)>;
int rewrite_file(const char *path, const EditFn &edit);

// Fills a caller's hash from the entries of a file, the first line of each
// key only.  A key ends at a NUL byte, as the hash holds C strings.
class FirstEntries {
public:
    explicit FirstEntries(PQLIBSZHASH *hash) : hash_(hash) {}
    // -1 when the hash cannot take the entry (the hash set the slot).
    int add(std::string_view key, std::string_view value);
    // How many entries went into the hash.
    int count() const { return count_; }

private:
    PQLIBSZHASH *hash_;
    std::unordered_set<std::string_view> seen_;
    std::string key_, value_;
    int count_ = 0;
};

// Entries of a hash in the order their keys were first set.
const std::vector<std::pair<std::string, std::string>> &hash_items(const QLIBSZHASH *hash);

// The current environment minus LANG and LC_*, plus LC_ALL=C.
std::vector<std::string> child_environment();

// Spawns a program with stdin /dev/null, stderr /dev/null and stdout on
// stdout_fd (or /dev/null when -1).  Returns the pid, or -1 (slot set).
pid_t spawn(const char *path, const std::vector<std::string> &argv, int stdout_fd, int stderr_fd = -1);
// Waits for pid, retrying on EINTR; 0 and the raw status on success, else -1.
int wait_child(pid_t pid, int &status);
// Waits for pid until the monotonic deadline (ms), then kills it (SIGKILL,
// killed set) and reaps it; 0 and the raw status, else -1.
int wait_child_until(pid_t pid, long long deadline_ms, int &status, bool &killed);

}  // namespace qc
