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
    const std::string globals = map.substr(0, map.find("local:"));
    std::set<std::string> mapped, exported;
    const std::regex name(R"((\w+);)");
    for (std::sregex_iterator m(globals.begin(), globals.end(), name), end; m != end; ++m) mapped.insert((*m)[1]);
    ASSERT_EQ(mapped.size(), 47u) << map;
    std::istringstream nm(qpt::run({"/usr/bin/nm", "-D", "--defined-only", "--format=just-symbols", kLib}).out);
    for (std::string symbol; std::getline(nm, symbol);) exported.insert(symbol);
    EXPECT_EQ(exported, mapped);
    const std::string dynamic = qpt::run({"/usr/bin/readelf", "-d", kLib}).out;
    EXPECT_NE(dynamic.find("Library soname: [libqoraprinter.so.6]"), std::string::npos) << dynamic;
}

}  // namespace
