// Owners for everything a function acquires, so that each is released on
// every path without a cleanup ladder.
#pragma once

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <utility>

#include "qoracore.h"
#include "qoraprinter.h"

namespace qp {

// Owns one handle and gives it back with Free on every path.  Null is the
// "nothing held" value; Free is never called with it.
template <class H, auto Free, H Null = H{}>
class Owner {
public:
    Owner() = default;
    explicit Owner(H h) noexcept : h_(h) {}
    Owner(Owner &&o) noexcept : h_(o.release()) {}
    Owner &operator=(Owner &&o) noexcept {
        if (this != &o) reset(o.release());
        return *this;
    }
    Owner(const Owner &) = delete;
    Owner &operator=(const Owner &) = delete;
    ~Owner() { reset(); }

    H get() const noexcept { return h_; }
    H *addr() noexcept { return &h_; }
    bool valid() const noexcept { return h_ != Null; }
    explicit operator bool() const noexcept { return valid(); }
    [[nodiscard]] H release() noexcept { return std::exchange(h_, Null); }
    void reset(H h = Null) noexcept {
        if (h_ != Null) Free(h_);
        h_ = h;
    }
    // Gives the handle back now and answers what Free said (0 when none
    // was held), for the callers that judge the release itself.
    int close() noexcept { return h_ != Null ? Free(std::exchange(h_, Null)) : 0; }

private:
    H h_ = Null;
};

inline int close_fd(int fd) noexcept { return ::close(fd); }
inline void free_block(void *p) noexcept { ::free(p); }
inline void free_list(PQLIBSZLIST l) noexcept { ::QLIBCSzListFree(l); }
inline void free_hash(PQLIBSZHASH h) noexcept { ::QLIBCSzHashFree(h); }
inline int unlock_conf(int fd) noexcept { return ::QORAPrinterPrinterConfUnlock(fd); }
inline int unlock_named(unsigned int lock) noexcept { return ::QLIBCFileUnlock(lock); }

// A file descriptor.
using UniqueFd = Owner<int, close_fd, -1>;
// A stdio stream from fopen.
using File = Owner<FILE *, ::fclose>;
// The output stream of a program started with QLIBCPopen.  The program is
// waited for by close() (QLIBCPclose's result: negative when it failed to run
// or died), or by the destructor on the paths that never ask.
using Pipe = Owner<FILE *, ::QLIBCPclose>;
// A heap block from malloc.
template <class T>
using MallocPtr = Owner<T *, free_block>;
// The printer configuration lock (QORAPrinterPrinterConfLock's descriptor).
using ConfLock = Owner<int, unlock_conf, -1>;
// A named lock of the core library taken with QLIBCFileLock (the lock's
// name is the handle).
using UsbIdMapLock = Owner<unsigned int, unlock_named, 0u>;

// A string hash of the core library.  addr() hands out the handle by
// reference for the operations that may grow it.
class Hash : public Owner<PQLIBSZHASH, free_hash> {
public:
    explicit Hash(int capacity) noexcept : Owner(::QLIBCSzHashAlloc(capacity)) {}
    const char *value(const char *key) const noexcept { return get() ? ::QLIBCSzHashGetValue(get(), key) : nullptr; }
};

// A string list of the core library.
class List : public Owner<PQLIBSZLIST, free_list> {
public:
    List() = default;
    explicit List(int capacity) noexcept : Owner(::QLIBCSzListAlloc(capacity)) {}
    int size() const noexcept { return get() ? get()->nItem : 0; }
    const char *at(int i) const noexcept { return get()->pszItem[i]; }
};

}  // namespace qp
