// Helpers shared by the configuration store tests.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "qoracore.h"
#include "qoraprinter.h"
#include "qp_test.hpp"

namespace conft {

inline constexpr const char *kConf = "/usr/qora/etc/printer.conf";
inline constexpr const char *kLockFile = "/run/qorasdk/lock/lock_printer";

// A section as the core library reads it, key -> value.
inline std::map<std::string, std::string> section(const char *name, const char *file = kConf) {
    std::map<std::string, std::string> out;
    PQLIBSZHASH h = QLIBCSzHashAlloc(512);
    PQLIBSZLIST keys = QLIBCSzListAlloc(256);
    if (h && keys && QLIBCFileGetSection(file, name, &h) > 0 && QLIBCSzHashEnumKey(h, &keys) > 0) {
        for (int i = 0; i < keys->nItem; ++i) {
            const char *v = QLIBCSzHashGetValue(h, keys->pszItem[i]);
            out[keys->pszItem[i]] = v ? v : "";
        }
    }
    QLIBCSzListFree(keys);
    QLIBCSzHashFree(h);
    return out;
}

// Runs fn in a forked child and answers its exit status (-1 when it died).
inline int in_child(const std::function<int()> &fn) {
    pid_t pid = fork();
    if (pid == 0) _exit(fn());
    int st = 0;
    while (waitpid(pid, &st, 0) < 0) {
    }
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

// Puts an unlikely value in the error slot, to see whether a call touches it.
inline void mark_slot() { QLIBCErrSetEx(ERR_NAME_TOO_LONG, "marker.cpp", 4242); }
inline bool slot_is_marked() {
    return QLIBCErrGet() == ERR_NAME_TOO_LONG && std::strcmp(QLIBCErrorGetFile(), "marker.cpp") == 0 &&
           QLIBCErrorGetLine() == 4242;
}

template <std::size_t N>
void put(char (&field)[N], const std::string &s) {
    ASSERT_LT(s.size(), N);
    std::memcpy(field, s.c_str(), s.size() + 1);
}

// A fresh printer.conf (or none) for each test.
class ConfTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(qpt::in_sandbox()) << "these tests write the library's fixed paths: run them in qp-sandbox";
        qpt::mkdirs("/usr/qora/etc");
        qpt::remove_file(kConf);
    }
};

}  // namespace conft
