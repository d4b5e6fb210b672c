// Helpers shared by the configuration store tests.
#pragma once

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "qoracore.h"
#include "qoraprinter.h"
#include "qp_test.hpp"
#include "../platform/section_map.hpp"

namespace conft {

inline constexpr const char *kConf = "/usr/qora/etc/printer.conf";

// A section of printer.conf as the core library reads it, key -> value.
inline qpfile::Map section(const char *name) { return qpfile::section(kConf, name).second; }

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

// A fresh printer.conf (or none) for each test; every path of every test
// gives back its descriptors (the lock, the file reads).
class ConfTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(qpt::in_sandbox()) << "these tests write the library's fixed paths: run them in qp-sandbox";
        qpt::mkdirs("/usr/qora/etc");
        qpt::remove_file(kConf);
        QORAPrinterPrinterConfUnlock(-1);  // opens the syslog socket once
        fds_ = qpt::open_fd_count();
    }
    void TearDown() override { EXPECT_EQ(qpt::open_fd_count(), fds_) << "descriptor leak"; }
    int fds_ = 0;
};

}  // namespace conft
