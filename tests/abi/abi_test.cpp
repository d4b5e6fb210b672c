// The library as a C caller and a packager see it.
#include <stdlib.h>

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

// The names the version script makes global.
std::set<std::string> mapped_names() {
    std::set<std::string> names;
    std::istringstream in(qpt::read_file(qpt::source_path("src/qoraprinter.map")));
    bool global = false;
    for (std::string line; std::getline(in, line);) {
        if (line.find("global:") != std::string::npos) global = true;
        else if (line.find("local:") != std::string::npos) global = false;
        else if (global)
            for (std::string w : words(line))
                if (!w.empty() && w.back() == ';') names.insert(w.substr(0, w.size() - 1));
    }
    return names;
}

TEST(Abi, ExportsExactlyTheMappedFunctions) {
    std::set<std::string> expected = mapped_names();
    ASSERT_EQ(expected.size(), 47u);
    qpt::RunResult nm = qpt::run({"/usr/bin/nm", "-D", "--defined-only", kLib});
    ASSERT_EQ(nm.status, 0) << nm.err;
    std::set<std::string> exported;
    std::istringstream in(nm.out);
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> w = words(line);
        if (w.size() == 3) exported.insert(w[2]);
    }
    EXPECT_EQ(exported, expected);
}

TEST(Abi, SonameCarriesMajorVersionSix) {
    qpt::RunResult re = qpt::run({"/usr/bin/readelf", "-d", kLib});
    ASSERT_EQ(re.status, 0) << re.err;
    EXPECT_NE(re.out.find("(SONAME)"), std::string::npos) << re.out;
    EXPECT_NE(re.out.find("Library soname: [libqoraprinter.so.6]"), std::string::npos) << re.out;
}

TEST(Abi, PublicHeaderStandsAloneInStrictC99AndCxx) {
    // Included twice: the guard must hold; nothing before it: it must pull
    // in what it needs itself.
    qpt::write_file("/tmp/abi/use.c", "#include \"qoraprinter.h\"\n#include \"qoraprinter.h\"\nint main(void) { return 0; }\n");
    const std::string inc = "-I" + qpt::source_path("include"), pinc = "-I" + qpt::source_path("platform/include");
    qpt::RunResult c = qpt::run({"/usr/bin/cc", "-std=c99", "-Wall", "-Wextra", "-Werror", "-pedantic",
                                 "-fsyntax-only", inc, pinc, "/tmp/abi/use.c"});
    EXPECT_EQ(c.status, 0) << c.err;
    qpt::RunResult cxx = qpt::run({"/usr/bin/c++", "-std=c++20", "-Wall", "-Wextra", "-Werror", "-pedantic",
                                   "-fsyntax-only", "-x", "c++", inc, pinc, "/tmp/abi/use.c"});
    EXPECT_EQ(cxx.status, 0) << cxx.err;
}

TEST(Abi, InstalledTreeBuildsACallerThroughPkgConfig) {
    const std::string prefix = "/tmp/abi/prefix";
    qpt::RunResult inst = qpt::run({QP_CMAKE, "--install", QP_BUILD_DIR, "--prefix", prefix});
    ASSERT_EQ(inst.status, 0) << inst.out << inst.err;

    qpt::RunResult find = qpt::run({"/usr/bin/find", prefix, "-name", "qoraprinter.pc"});
    std::vector<std::string> pcs = words(find.out);
    ASSERT_EQ(pcs.size(), 1u) << find.out;
    std::string pcdir = pcs[0].substr(0, pcs[0].rfind('/'));
    std::string libdir = pcdir.substr(0, pcdir.rfind('/'));
    setenv("PKG_CONFIG_PATH", pcdir.c_str(), 1);
    qpt::RunResult flags = qpt::run({"/usr/bin/pkg-config", "--cflags", "--libs", "qoraprinter"});
    unsetenv("PKG_CONFIG_PATH");
    ASSERT_EQ(flags.status, 0) << flags.err;

    qpt::write_file("/tmp/abi/caller.c",
                    "#include <stdio.h>\n#include <qoraprinter.h>\n"
                    "int main(void) {\n"
                    "    char id[] = \"MFG:ACME;MDL:Laser 100;\";\n"
                    "    char buf[64] = \"\";\n"
                    "    int ok = QORAPrinterConfStringIdGetVendor(id, buf, (int)sizeof buf);\n"
                    "    int bad = QORAPrinterConfStringIdGetVendor(NULL, buf, (int)sizeof buf);\n"
                    "    printf(\"%d %s %d 0x%04X\\n\", ok, buf, bad, QLIBCErrGet());\n"
                    "    return 0;\n}\n");
    // A prefix outside the loader's search path: the linker, too, finds the
    // library's own dependencies through LD_LIBRARY_PATH.
    std::vector<std::string> cc = {"/usr/bin/env", "LD_LIBRARY_PATH=" + libdir, QP_CC, "-std=c99", "-Wall", "-Werror", "/tmp/abi/caller.c", "-o", "/tmp/abi/caller"};
    if (QP_SANITIZED) cc.push_back("-fsanitize=address,undefined");
    for (const std::string &f : words(flags.out)) cc.push_back(f);
    qpt::RunResult build = qpt::run(cc);
    ASSERT_EQ(build.status, 0) << flags.out << "\n" << build.err;

    qpt::RunResult call = qpt::run({"/usr/bin/env", "LD_LIBRARY_PATH=" + libdir, "/tmp/abi/caller"});
    EXPECT_EQ(call.status, 0) << call.err;
    EXPECT_EQ(call.out, "0 ACME -1 0x0D00\n") << call.err;
}

}  // namespace
