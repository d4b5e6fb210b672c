// Key-value and section files: reading rules, byte-exact rewrites, hostile
// content, and rewrites racing each other or killed half way.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "qoracore.h"
#include "qp_test.hpp"
#include "section_map.hpp"

namespace {

using qpfile::Map;
using qpfile::section;

std::string scratch(const std::string &name) {
    qpt::mkdirs("/tmp/platform-files/" + name);
    return "/tmp/platform-files/" + name;
}

PQLIBSZHASH make_hash(std::initializer_list<std::pair<const char *, const char *>> items) {
    PQLIBSZHASH h = QLIBCSzHashAlloc(16);
    for (const auto &[k, v] : items) QLIBCSzHashSetValue(&h, k, v);
    return h;
}

std::string get_kv(const std::string &file, const char *key) {
    char buf[4096];
    return QLIBCFileGetKeyValue(file.c_str(), key, buf, sizeof buf, 0) < 0 ? "<none>" : buf;
}

TEST(KeyValueFile, ReadingRules) {
    const std::string f = scratch("kvread") + "/tab";
    qpt::write_file(f, "garbage line\r\n=\"no key\"\n  lp0 =  \"1-1.2\"  \r\nlp1=bare value\nlp0=\"second copy\"\n"
                       "quoted=\"a \"inner\" b\"\neq=\"x=y\"\nlast=\"no newline\"");
    PQLIBSZHASH h = QLIBCSzHashAlloc(16);
    EXPECT_EQ(QLIBCFileGetPair(f.c_str(), &h), 5);
    for (const auto &[k, v] : Map{{"lp0", "1-1.2"}, {"lp1", "bare value"}, {"quoted", "a \"inner\" b"}, {"eq", "x=y"}})
        EXPECT_STREQ(QLIBCSzHashGetValue(h, k.c_str()), v.c_str()) << k;  // the first line of a key counts
    EXPECT_STREQ(QLIBCSzHashGetValue(h, "last"), "no newline");
    QLIBCSzHashFree(h);
}

TEST(KeyValueFile, WritersKeepOtherBytesAndModeAndForgeNothing) {
    const std::string f = scratch("kvwrite") + "/tab";
    struct stat st {};
    const std::string head = "# header comment\r\nnoise without equals\n" + std::string(100 * 1024, 'L') + "\n" +
                             std::string("bin\x01\xff\x00tail=\"v\"\n", 15);
    qpt::write_file(f, head + "lp0=\"old\"\nmid=\"keep\"\r\nlp0=\"dup\"\nend=\"x\"", 0640);
    ASSERT_EQ(QLIBCFileSetKeyValue(f.c_str(), "lp0", "1-1", "%s=\"%s\"\n"), 0);
    EXPECT_EQ(qpt::read_file(f), head + "lp0=\"1-1\"\nmid=\"keep\"\r\nend=\"x\"");
    EXPECT_TRUE(stat(f.c_str(), &st) == 0 && (st.st_mode & 07777) == 0640u) << std::oct << st.st_mode;
    // Appending after a last line without a line end must not glue the two.
    ASSERT_EQ(QLIBCFileSetKeyValue(f.c_str(), "lp1", "2-1", nullptr), 0);
    EXPECT_EQ(qpt::read_file(f), head + "lp0=\"1-1\"\nmid=\"keep\"\r\nend=\"x\"\nlp1=\"2-1\"\n");

    // Keys and values cannot forge lines; bad keys and formats change nothing.
    qpt::write_file(f, "lp0=\"1-1\"\n");
    ASSERT_EQ(QLIBCFileSetKeyValue(f.c_str(), "lp1", "x\"\nlp0=\"evil\r\n[s]", nullptr), 0);
    EXPECT_EQ(get_kv(f, "lp0"), "1-1");
    EXPECT_EQ(get_kv(f, "lp1"), "x\" lp0=\"evil  [s]");

    const std::string now = qpt::read_file(f);
    QLIBCErrSetEx(0, "", 0);
    for (const char *bad : {"a=b", "[lp", "  "}) EXPECT_LT(QLIBCFileSetKeyValue(f.c_str(), bad, "v", nullptr), 0) << bad;
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
    EXPECT_EQ(qpt::read_file(f), now);
}

TEST(SectionFile, ReadingRules) {
    const std::string f = scratch("secread") + "/printer.conf";
    qpt::write_file(f, "; leading comment\n[Google Cloud Print]\r\n\tgoogle account = someone \r\n"
                       "# comment = not an entry\n; nor = this\ngarbage\n\t = no key\n\tkey=a = b\n[empty]\n\n"
                       "[printers]\n\tcomment = All Printers\n\tcomment = later duplicate\n"
                       "[Google Cloud Print]\n\tgoogle account = second section");
    EXPECT_EQ(section(f, "Google Cloud Print"), std::make_pair(2, Map{{"google account", "someone"}, {"key", "a = b"}}));
    for (const char *none : {"empty", "absent", "Printers"})  // names are case-sensitive
        EXPECT_EQ(section(f, none).first, 0) << none;
    EXPECT_EQ(section(f, "printers").second["comment"], "All Printers");
}

TEST(SectionFile, AddSectionAppendsOnceAndNeutralisesContent) {
    const std::string f = scratch("secadd") + "/printer.conf";
    qpt::write_file(f, "[printers]\n# nothing yet");
    PQLIBSZHASH h = make_hash({{"zeta", "1"}, {"alpha", "2"}});
    // A header without entries is a section that exists; a new one starts on a line of its own, once.
    EXPECT_EQ(QLIBCFileAddSection(f.c_str(), "printers", h, nullptr), 0);
    ASSERT_EQ(QLIBCFileAddSection(f.c_str(), "G", h, "\t%s = %s\n"), 1);
    EXPECT_EQ(QLIBCFileAddSection(f.c_str(), "G", h, nullptr), 0);
    EXPECT_EQ(qpt::read_file(f), "[printers]\n# nothing yet\n[G]\n\tzeta = 1\n\talpha = 2\n");
    QLIBCSzHashFree(h);

    // Values and keys cannot forge lines or sections; a tab cannot end a line.
    h = make_hash({{"mode", "lpr\n[printers]\n\tpath = /etc"}, {"key\r\nforged", "v"}});
    ASSERT_EQ(QLIBCFileAddSection(f.c_str(), "P", h, nullptr), 1);
    QLIBCSzHashFree(h);
    ASSERT_EQ(QLIBCFileSetSectionValue(f.c_str(), "P", "path", "a\n[x]"), 0);
    EXPECT_EQ(section(f, "P"), std::make_pair(3, Map{{"mode", "lpr [printers] \tpath = /etc"},
                                                      {"key  forged", "v"}, {"path", "a [x]"}}));
    const std::string now = qpt::read_file(f);
    for (const char *bad : {"a=b", "[k", ";k"}) {
        PQLIBSZHASH b = make_hash({{"fine", "1"}, {bad, "2"}});
        EXPECT_LT(QLIBCFileSetSection(f.c_str(), "P", "P", b, nullptr), 1) << bad;
        EXPECT_LT(QLIBCFileAddSection(f.c_str(), "Q", b, nullptr), 0) << bad;
        EXPECT_LT(QLIBCFileSetSectionValue(f.c_str(), "P", bad, "v"), 0) << bad;
        QLIBCSzHashFree(b);
    }
    EXPECT_EQ(qpt::read_file(f), now);
}

// Writers copy what lies outside the changed section as whole runs of bytes
// and find headers by looking only at lines that begin with '['; lines that
// merely contain a bracketed name must neither be taken for the header nor
// shift where the copied runs begin and end.
TEST(SectionFile, SetSectionAndValueChangeOnlyThatSection) {
    const std::string f = scratch("secset") + "/printer.conf";
    const std::string top = "# top [B]\r\n[B\n  [B]] \n[A]\n", a = "\tk = 1\n\tm = x[B]\n\tk = dup\n\n";
    const std::string b_tail = "\n# about C\n", rest = "[C]\n\tc = [B]\nstray\n[B]\n\tb = second copy\n";
    qpt::write_file(f, top + a + " \t[B] \r\n\tb = 1\n# inside\nnoise\n\tother = 2\n" + b_tail + rest);
    EXPECT_EQ(section(f, "B"), std::make_pair(2, Map{{"b", "1"}, {"other", "2"}}));
    EXPECT_EQ(section(f, "B]"), std::make_pair(0, Map{}));  // "  [B]] " is its header

    PQLIBSZHASH h = make_hash({{"b", "new"}, {"x", "y"}});
    ASSERT_EQ(QLIBCFileSetSection(f.c_str(), "B", "B renamed", h, "\t%s = %s\n"), 1);
    const std::string b = "[B renamed]\n\tb = new\n\tx = y\n" + b_tail;
    EXPECT_EQ(qpt::read_file(f), top + a + b + rest);

    // A value replaces the key's first entry (later ones go) or follows the
    // section's last entry; the later duplicate B is now the first one.
    ASSERT_EQ(QLIBCFileSetSectionValue(f.c_str(), "A", "k", "one"), 0);
    ASSERT_EQ(QLIBCFileSetSectionValue(f.c_str(), "A", "n", "new"), 0);
    ASSERT_EQ(QLIBCFileSetSectionValue(f.c_str(), "B", "n", "last"), 0);
    EXPECT_EQ(qpt::read_file(f), top + "\tk = one\n\tm = x[B]\n\tn = new\n\n" + b + rest + "\tn = last\n");
    QLIBCSzHashFree(h);
}

// Writers in threads (each with its own lock descriptor) all start at once;
// each round adds a key, so a lost rewrite shows whenever it happened.
TEST(Rewrite, ConcurrentWritersLoseNothing) {
    const std::string f = scratch("concurrent") + "/printer.conf";
    qpt::write_file(f, "[shared]\n");
    constexpr int kWriters = 6, kKeys = 6 * 25;
    Map want;
    size_t size = 9;  // "[shared]\n", then "\tk12 = 1\n" a key
    for (int k = 0; k < kKeys; ++k) {
        want["k" + std::to_string(k)] = "1";
        size += std::to_string(k).size() + 7;
    }
    std::latch start(kWriters);
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w)
        writers.emplace_back([&f, &start, w] {
            start.arrive_and_wait();
            for (int k = w; k < kKeys; k += kWriters)
                EXPECT_EQ(QLIBCFileSetSectionValue(f.c_str(), "shared", ("k" + std::to_string(k)).c_str(), "1"), 0);
        });
    for (auto &t : writers) t.join();
    // Nothing lost, torn or doubled.
    EXPECT_EQ(section(f, "shared"), std::make_pair(kKeys, want));
    EXPECT_EQ(qpt::read_file(f).size(), size);
}

// A writer killed at any moment leaves one whole version; the next writer
// clears temporary files killed writers left (one is planted, as the kills
// may miss every write).
TEST(Rewrite, KilledWritersLeaveOldOrNewFile) {
    const std::string dir = scratch("crash"), f = dir + "/printer.conf";
    qpt::write_file(f, "[before]\n\tb = 1\n[target]\n\tgen = 0\n[after]\n\ta = 1\n");
    PQLIBSZHASH big = QLIBCSzHashAlloc(300), small = make_hash({{"gen", "small"}});
    for (int k = 0; k < 300; ++k) QLIBCSzHashSetValue(&big, ("key" + std::to_string(k)).c_str(), "big");
    std::string versions[2];
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(QLIBCFileSetSection(f.c_str(), "target", "target", i ? small : big, nullptr), 1);
        versions[i] = qpt::read_file(f);
    }
    for (int round = 0; round < 20; ++round) {
        const pid_t pid = fork();
        if (pid == 0)
            for (int i = 0;; ++i) QLIBCFileSetSection(f.c_str(), "target", "target", i % 2 ? small : big, nullptr);
        usleep((1 + round * 7919 % 30) * 1000);  // spread over a write's length
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        const std::string now = qpt::read_file(f);
        ASSERT_TRUE(now == versions[0] || now == versions[1]) << "torn file after a kill in round " << round;
    }
    QLIBCSzHashFree(big);
    QLIBCSzHashFree(small);
    qpt::write_file(dir + "/.printer.conf.Ab12Z9", "left by a writer killed before its rename");
    ASSERT_EQ(QLIBCFileSetSectionValue(f.c_str(), "before", "b", "2"), 0);
    int writer_files = 0;  // the lock file alone stays
    for (const auto &e : std::filesystem::directory_iterator(dir))
        writer_files += e.path().filename().string().rfind(".printer.conf.", 0) == 0;
    EXPECT_EQ(writer_files, 1);
}

}  // namespace
