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

TEST(Abi, InstalledTreeBuildsACallerThroughPkgConfig) {
    const std::string prefix = "/tmp/abi/prefix";
    qpt::RunResult inst = qpt::run({QP_CMAKE, "--install", QP_BUILD_DIR, "--prefix", prefix});
    ASSERT_EQ(inst.status, 0) << inst.out << inst.err;
    std::vector<std::string> pcs = words(qpt::run({"/usr/bin/find", prefix, "-name", "qoraprinter.pc"}).out);
    ASSERT_EQ(pcs.size(), 1u);
    const std::string pcdir = pcs[0].substr(0, pcs[0].rfind('/')), libdir = pcdir.substr(0, pcdir.rfind('/'));
    qpt::RunResult flags = qpt::run({"/usr/bin/env", "PKG_CONFIG_PATH=" + pcdir, "/usr/bin/pkg-config", "--cflags",
                                     "--libs", "qoraprinter"});
    ASSERT_EQ(flags.status, 0) << flags.err;

    qpt::write_file("/tmp/abi/caller.c",
                    "#include <stdio.h>\n#include <qoraprinter.h>\nint main(void) {\n"
                    "    char id[] = \"MFG:ACME;MDL:Laser 100;\", buf[64] = \"\";\n"
                    "    int ok = QORAPrinterConfStringIdGetVendor(id, buf, (int)sizeof buf);\n"
                    "    int bad = QORAPrinterConfStringIdGetVendor(NULL, buf, (int)sizeof buf);\n"
                    "    printf(\"%d %s %d 0x%04X\\n\", ok, buf, bad, QLIBCErrGet());\n    return 0;\n}\n");
    // A prefix outside the loader's search path: the linker, too, finds the
    // library's own dependencies through LD_LIBRARY_PATH.
    std::vector<std::string> cc = {"/usr/bin/env", "LD_LIBRARY_PATH=" + libdir, QP_CC, "-std=c99", "-Wall", "-Werror",
                                   "/tmp/abi/caller.c", "-o", "/tmp/abi/caller"};
    if (QP_SANITIZED) cc.push_back("-fsanitize=address,undefined");
    for (const std::string &f : words(flags.out)) cc.push_back(f);
    qpt::RunResult build = qpt::run(cc);
    ASSERT_EQ(build.status, 0) << flags.out << "\n" << build.err;
    qpt::RunResult call = qpt::run({"/usr/bin/env", "LD_LIBRARY_PATH=" + libdir, "/tmp/abi/caller"});
    EXPECT_EQ(call.status, 0) << call.err;
    EXPECT_EQ(call.out, "0 ACME -1 0x0D00\n") << call.err;
}

}  // namespace
