// Owners for everything a function acquires, so that each is released on
// every path without a cleanup ladder.
#pragma once

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <utility>

#include "qoracore.h"

namespace qp {

// A file descriptor.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}
    UniqueFd(UniqueFd &&o) noexcept : fd_(o.release()) {}
    UniqueFd &operator=(UniqueFd &&o) noexcept {
        if (this != &o) reset(o.release());
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd() { reset(); }

    int get() const noexcept { return fd_; }
    bool valid() const noexcept { return fd_ >= 0; }
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }
    void reset(int fd = -1) noexcept {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

// A string hash of the core library.  addr() hands out the handle by
// reference for the operations that may grow it.
class Hash {
public:
    explicit Hash(int capacity) noexcept : h_(::QLIBCSzHashAlloc(capacity)) {}
    Hash(const Hash &) = delete;
    Hash &operator=(const Hash &) = delete;
    ~Hash() {
        if (h_) ::QLIBCSzHashFree(h_);
    }
    explicit operator bool() const noexcept { return h_ != nullptr; }
    PQLIBSZHASH get() const noexcept { return h_; }
    PQLIBSZHASH *addr() noexcept { return &h_; }
    const char *value(const char *key) const noexcept { return h_ ? ::QLIBCSzHashGetValue(h_, key) : nullptr; }

private:
    PQLIBSZHASH h_;
};

// A string list of the core library.
class List {
public:
    List() = default;
    explicit List(int capacity) noexcept : l_(::QLIBCSzListAlloc(capacity)) {}
    List(List &&o) noexcept : l_(o.release()) {}
    List(const List &) = delete;
    List &operator=(const List &) = delete;
    ~List() { ::QLIBCSzListFree(l_); }
    explicit operator bool() const noexcept { return l_ != nullptr; }
    PQLIBSZLIST get() const noexcept { return l_; }
    PQLIBSZLIST *addr() noexcept { return &l_; }
    int size() const noexcept { return l_ ? l_->nItem : 0; }
    const char *at(int i) const noexcept { return l_->pszItem[i]; }
    [[nodiscard]] PQLIBSZLIST release() noexcept { return std::exchange(l_, nullptr); }

private:
    PQLIBSZLIST l_ = nullptr;
};

// A heap block from malloc.
template <class T>
class MallocPtr {
public:
    MallocPtr() = default;
    explicit MallocPtr(T *p) noexcept : p_(p) {}
    MallocPtr(const MallocPtr &) = delete;
    MallocPtr &operator=(const MallocPtr &) = delete;
    ~MallocPtr() { ::free(p_); }
    T *get() const noexcept { return p_; }
    T **addr() noexcept { return &p_; }
    [[nodiscard]] T *release() noexcept { return std::exchange(p_, nullptr); }
    explicit operator bool() const noexcept { return p_ != nullptr; }

private:
    T *p_ = nullptr;
};

// A stdio stream from fopen.
class File {
public:
    explicit File(FILE *f) noexcept : f_(f) {}
    File(const File &) = delete;
    File &operator=(const File &) = delete;
    ~File() {
        if (f_) ::fclose(f_);
    }
    explicit operator bool() const noexcept { return f_ != nullptr; }
    FILE *get() const noexcept { return f_; }
    // Closes now and answers fclose's result.
    int close() noexcept { return f_ ? ::fclose(std::exchange(f_, nullptr)) : 0; }

private:
    FILE *f_;
};

// The output stream of a program started with QLIBCPopen.  The program is
// waited for by close(), or by the destructor on the paths that never ask.
class Pipe {
public:
    explicit Pipe(FILE *f) noexcept : f_(f) {}
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    ~Pipe() {
        if (f_) ::QLIBCPclose(f_);
    }
    explicit operator bool() const noexcept { return f_ != nullptr; }
    FILE *get() const noexcept { return f_; }
    // QLIBCPclose's result: negative when the program failed to run or died.
    int close() noexcept { return f_ ? ::QLIBCPclose(std::exchange(f_, nullptr)) : 0; }

private:
    FILE *f_;
};

}  // namespace qp
