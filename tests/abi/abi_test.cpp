// The library as a C caller and a packager see it.
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "qp_test.hpp"

namespace {

const std::string kLib = std::string(QP_BUILD_DIR) + "/lib/libqoraprinter.so.6";

std::vector<std::string> words(const std::string &s) {
    std::vector<std::string> out;
    std::istringstream in(s);
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

// The dynamic symbol table holds exactly the names the version script makes
// global, and the SONAME carries major version 6.
TEST(Abi, ExportsAndSoname) {
    std::set<std::string> mapped, exported;
    const std::string map = qpt::read_file(qpt::source_path("src/qoraprinter.map"));
    const size_t from = map.find("global:"), to = map.find("local:");
    ASSERT_TRUE(from < to && to != std::string::npos) << map;
    for (const std::string &w : words(map.substr(from + 7, to - from - 7)))
        if (w.back() == ';') mapped.insert(w.substr(0, w.size() - 1));
    ASSERT_EQ(mapped.size(), 47u);
    qpt::RunResult nm = qpt::run({"/usr/bin/nm", "-D", "--defined-only", kLib});
    ASSERT_EQ(nm.status, 0) << nm.err;
    std::istringstream in(nm.out);
    for (std::string line; std::getline(in, line);)
        if (std::vector<std::string> w = words(line); w.size() == 3) exported.insert(w[2]);
    EXPECT_EQ(exported, mapped);
    const qpt::RunResult re = qpt::run({"/usr/bin/readelf", "-d", kLib});
    EXPECT_NE(re.out.find("Library soname: [libqoraprinter.so.6]"), std::string::npos) << re.out << re.err;
}

// Included twice (the guard must hold) with nothing before it (it pulls in
// what it needs), the header compiles as strict C99 and as C++.
TEST(Abi, PublicHeaderStandsAloneInStrictC99AndCxx) {
    const std::string twice = "#include <qoraprinter.h>\n#include <qoraprinter.h>\n";
    qpt::write_file("/tmp/abi/use.c", twice + "int main(void) { return 0; }\n");
    for (const char *lang : {"/usr/bin/cc -std=c99", "/usr/bin/c++ -std=c++20 -x c++"}) {
        const std::string cmd = std::string(lang) + " -Wall -Wextra -Werror -pedantic -fsyntax-only -I" +
                                qpt::source_path("include") + " -I" + qpt::source_path("platform/include");
        const qpt::RunResult r = qpt::run(words(cmd + " /tmp/abi/use.c"));
        EXPECT_EQ(r.status, 0) << lang << r.err;
    }
}

}  // namespace
