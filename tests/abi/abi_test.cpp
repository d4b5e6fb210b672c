// The library as a packager sees it (tests/install builds C and C++
// callers of an installed tree).
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "qp_test.hpp"

namespace {

const std::string kLib = std::string(QP_BUILD_DIR) + "/lib/libqoraprinter.so.6";

// The dynamic symbol table holds exactly the 47 names the version script
// makes global, and the SONAME carries major version 6.
TEST(Abi, ExportsAndSoname) {
    const std::string map = qpt::read_file(qpt::source_path("src/qoraprinter.map"));
    const size_t from = map.find("global:"), to = map.find("local:");
    ASSERT_TRUE(from < to && to != std::string::npos) << map;
    const std::string globals = map.substr(from, to - from);
    std::set<std::string> mapped, exported;
    const std::regex name(R"((\w+);)");
    for (std::sregex_iterator m(globals.begin(), globals.end(), name), end; m != end; ++m)
        mapped.insert((*m)[1]);
    ASSERT_EQ(mapped.size(), 47u);
    const qpt::RunResult nm = qpt::run({"/usr/bin/nm", "-D", "--defined-only", "--format=just-symbols", kLib});
    ASSERT_EQ(nm.status, 0) << nm.err;
    std::istringstream in(nm.out);
    for (std::string name; std::getline(in, name);) exported.insert(name);
    EXPECT_EQ(exported, mapped);
    const qpt::RunResult re = qpt::run({"/usr/bin/readelf", "-d", kLib});
    EXPECT_NE(re.out.find("Library soname: [libqoraprinter.so.6]"), std::string::npos) << re.out << re.err;
}

}  // namespace
