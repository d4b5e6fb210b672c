// Key-value and section files: reading rules, byte-exact rewrites, hostile
// content, and rewrites racing each other or killed half way.
#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "qoracore.h"
#include "qp_test.hpp"

namespace {

using Map = std::map<std::string, std::string>;

std::string scratch(const std::string &name) {
    std::string dir = "/tmp/platform-files/" + name;
    qpt::mkdirs(dir);
    return dir;
}

Map hash_to_map(PQLIBSZHASH h) {
    Map m;
    PQLIBSZLIST keys = QLIBCSzListAlloc(16);
    QLIBCSzHashEnumKey(h, &keys);
    for (int i = 0; i < keys->nItem; ++i) m[keys->pszItem[i]] = QLIBCSzHashGetValue(h, keys->pszItem[i]);
    QLIBCSzListFree(keys);
    return m;
}

// Reads a section; the int is GetSection's answer.
std::pair<int, Map> section(const std::string &file, const char *name) {
    PQLIBSZHASH h = QLIBCSzHashAlloc(16);
    int n = QLIBCFileGetSection(file.c_str(), name, &h);
    Map m = hash_to_map(h);
    QLIBCSzHashFree(h);
    return {n, m};
}

PQLIBSZHASH make_hash(std::initializer_list<std::pair<const char *, const char *>> items) {
    PQLIBSZHASH h = QLIBCSzHashAlloc(16);
    for (const auto &[k, v] : items) QLIBCSzHashSetValue(&h, k, v);
    return h;
}

std::string get_kv(const std::string &file, const char *key, int size = 4096, int *rc = nullptr) {
    std::string buf(static_cast<size_t>(size), 'X');
    int r = QLIBCFileGetKeyValue(file.c_str(), key, buf.data(), size, 0);
    if (rc) *rc = r;
    return r < 0 ? "<none>" : std::string(buf.c_str());
}

ino_t inode_of(const std::string &path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// Files in dir whose names start with prefix.
int count_prefixed(const std::string &dir, const std::string &prefix) {
    int n = 0;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d)) n += std::string(e->d_name).rfind(prefix, 0) == 0;
        closedir(d);
    }
    return n;
}

TEST(KeyValueFile, ReadingRules) {
    const std::string f = scratch("kvread") + "/tab";
    qpt::write_file(f,
                    "garbage line\r\n"
                    "=\"no key\"\n"
                    "  lp0 =  \"1-1.2\"  \r\n"
                    "lp1=bare value\n"
                    "lp0=\"second copy\"\n"
                    "quoted=\"a \"inner\" b\"\n"
                    "eq=\"x=y\"\n"
                    "last=\"no newline\"");
    PQLIBSZHASH h = QLIBCSzHashAlloc(16);
    EXPECT_EQ(QLIBCFileGetPair(f.c_str(), &h), 5);
    EXPECT_EQ(hash_to_map(h), (Map{{"lp0", "1-1.2"},  // the first line of a key counts
                                   {"lp1", "bare value"},
                                   {"quoted", "a \"inner\" b"},
                                   {"eq", "x=y"},
                                   {"last", "no newline"}}));
    QLIBCSzHashFree(h);
    int rc = 0;
    EXPECT_EQ(get_kv(f, "lp0", 4, &rc), "1-1");
    EXPECT_EQ(rc, 3);
    EXPECT_EQ(get_kv(f, "last"), "no newline");

    EXPECT_EQ(get_kv(f, "garbage line", 4096, &rc), "<none>");
    EXPECT_EQ(QLIBCErrGet(), ERR_KEY_NOT_FOUND);
    EXPECT_EQ(get_kv(f + ".missing", "lp0", 4096, &rc), "<none>");
    EXPECT_EQ(QLIBCErrGet(), ERR_OPEN_FAILED);
    EXPECT_STRNE(QLIBCErrorGetFile(), "");
    EXPECT_GT(QLIBCErrorGetLine(), 0);
    h = nullptr;
    EXPECT_LT(QLIBCFileGetPair((f + ".missing").c_str(), &h), 0);
    QLIBCSzHashFree(h);
}

TEST(KeyValueFile, WritersKeepOtherLinesByteForByte) {
    const std::string f = scratch("kvwrite") + "/tab";
    const std::string head = "# header comment\r\nnoise without equals\n" + std::string(100 * 1024, 'L') + "\n" +
                             std::string("bin\x01\xff\x00tail=\"v\"\n", 15);
    qpt::write_file(f, head + "lp0=\"old\"\nmid=\"keep\"\r\nlp0=\"dup\"\nend=\"x\"");

    ASSERT_EQ(QLIBCFileSetKeyValue(f.c_str(), "lp0", "1-1", "%s=\"%s\"\n"), 0);
    EXPECT_EQ(qpt::read_file(f), head + "lp0=\"1-1\"\nmid=\"keep\"\r\nend=\"x\"");

    // Appending after a last line without a line end must not glue the two.
    ASSERT_EQ(QLIBCFileSetKeyValue(f.c_str(), "lp1", "2-1", nullptr), 0);
    EXPECT_EQ(qpt::read_file(f), head + "lp0=\"1-1\"\nmid=\"keep\"\r\nend=\"x\"\nlp1=\"2-1\"\n");

    ASSERT_EQ(QLIBCFileSetKeyValue(f.c_str(), "lp0", "again", nullptr), 0);
    ASSERT_EQ(QLIBCFileSetKeyValue(f.c_str(), "lp2", "dupe", nullptr), 0);
    qpt::write_file(f, qpt::read_file(f) + "lp2=\"dupe2\"\n");
    ASSERT_EQ(QLIBCFileRemoveKey(f.c_str(), "lp2"), 0);
    EXPECT_EQ(qpt::read_file(f), head + "lp0=\"again\"\nmid=\"keep\"\r\nend=\"x\"\nlp1=\"2-1\"\n");

    // Removing what is not there changes nothing, not even the inode.
    ino_t before = inode_of(f);
    EXPECT_EQ(QLIBCFileRemoveKey(f.c_str(), "absent"), 0);
    EXPECT_EQ(inode_of(f), before);
    const std::string missing = scratch("kvwrite-missing") + "/tab";
    EXPECT_EQ(QLIBCFileRemoveKey(missing.c_str(), "lp0"), 0);
    EXPECT_FALSE(qpt::exists(missing));

    // A new file is created with mode 0644 whatever the umask.
    mode_t old_mask = umask(077);
    ASSERT_EQ(QLIBCFileSetKeyValue(missing.c_str(), "lp0", "1-1", nullptr), 0);
    umask(old_mask);
    struct stat st {};
    ASSERT_EQ(stat(missing.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    EXPECT_EQ(qpt::read_file(missing), "lp0=\"1-1\"\n");
}

// Removing every other line of a large table leaves thousands of separate
// runs of kept lines to write out.
TEST(KeyValueFile, ManyScatteredLinesOfOneKey) {
    const std::string f = scratch("kvscatter") + "/tab";
    std::string text, kept;
    for (int i = 0; i < 5000; ++i) {
        const std::string line = "k" + std::to_string(i) + "=\"" + std::to_string(i) + "\"" + (i % 3 ? "\n" : "\r\n");
        text += line + "dup=\"" + std::to_string(i) + "\"\n";
        kept += line;
    }
    qpt::write_file(f, text);
    ASSERT_EQ(QLIBCFileSetKeyValue(f.c_str(), "dup", "one", nullptr), 0);
    EXPECT_EQ(qpt::read_file(f), kept.substr(0, kept.find('\n') + 1) + "dup=\"one\"\n" +
                                     kept.substr(kept.find('\n') + 1));
    qpt::write_file(f, text);
    ASSERT_EQ(QLIBCFileRemoveKey(f.c_str(), "dup"), 0);
    EXPECT_EQ(qpt::read_file(f), kept);
    EXPECT_EQ(get_kv(f, "k4999"), "4999");
}

TEST(KeyValueFile, KeysAndValuesCannotForgeLines) {
    const std::string f = scratch("kvforge") + "/tab";
    qpt::write_file(f, "lp0=\"1-1\"\n");
    ASSERT_EQ(QLIBCFileSetKeyValue(f.c_str(), "lp1", "x\"\nlp0=\"evil\r\n[s]", nullptr), 0);
    EXPECT_EQ(get_kv(f, "lp0"), "1-1");
    EXPECT_EQ(get_kv(f, "lp1"), "x\" lp0=\"evil  [s]");
    PQLIBSZHASH h = nullptr;
    EXPECT_EQ(QLIBCFileGetPair(f.c_str(), &h), 2);
    QLIBCSzHashFree(h);

    const std::string before = qpt::read_file(f);
    for (const char *bad : {"a=b", "[lp", "", "  "}) {
        QLIBCErrSetEx(0, "", 0);
        EXPECT_LT(QLIBCFileSetKeyValue(f.c_str(), bad, "v", nullptr), 0) << bad;
        EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER) << bad;
    }
    // Formats that printf would read more arguments from are refused.
    EXPECT_LT(QLIBCFileSetKeyValue(f.c_str(), "k", "v", "%s=%d\n"), 0);
    EXPECT_LT(QLIBCFileSetKeyValue(f.c_str(), "k", "v", "%s=%s%s\n"), 0);
    EXPECT_EQ(qpt::read_file(f), before);

    ASSERT_EQ(QLIBCFileSetKeyValue(f.c_str(), "k", "v", "%s = \"%s\" %%\n"), 0);
    EXPECT_EQ(qpt::read_file(f), before + "k = \"v\" %\n");
}

TEST(SectionFile, ReadingRules) {
    const std::string f = scratch("secread") + "/printer.conf";
    qpt::write_file(f,
                    "; leading comment\n"
                    "[Google Cloud Print]\r\n"
                    "\tgoogle account = someone \r\n"
                    "# comment = not an entry\n"
                    "garbage\n"
                    "\t = no key\n"
                    "\tkey=a = b\n"
                    "[empty]\n"
                    "\n"
                    "[printers]\n"
                    "\tcomment = All Printers\n"
                    "\tcomment = later duplicate\n"
                    "[Google Cloud Print]\n"
                    "\tgoogle account = second section\n"
                    "[last]\n"
                    "\tk = no newline");
    auto [n, m] = section(f, "Google Cloud Print");
    EXPECT_EQ(n, 2);
    EXPECT_EQ(m, (Map{{"google account", "someone"}, {"key", "a = b"}}));
    EXPECT_EQ(section(f, "empty").first, 0);
    EXPECT_EQ(section(f, "absent").first, 0);
    EXPECT_EQ(section(f, "Printers").first, 0);  // names are case-sensitive
    EXPECT_EQ(section(f, "printers").second["comment"], "All Printers");
    EXPECT_EQ(section(f, "last").second["k"], "no newline");

    // A NUL byte ends a key as the hash sees it, so "k\0x" and "k" are one
    // key and the count agrees with what the hash holds.
    const std::string g = f + ".nul";
    qpt::write_file(g, std::string("[nul]\n\tk\0x = first\n\tk = second\n\t\0 = none\n", 41));
    auto [nn, nm] = section(g, "nul");
    EXPECT_EQ(nn, 1);
    EXPECT_EQ(nm, (Map{{"k", "first"}}));

    QLIBCErrSetEx(0, "", 0);
    EXPECT_LT(section(f + ".missing", "printers").first, 0);
    EXPECT_EQ(QLIBCErrGet(), ERR_OPEN_FAILED);

    char buf[8];
    EXPECT_EQ(QLIBCFileGetSectionValue(f.c_str(), "printers", "comment", buf, sizeof buf), 7);
    EXPECT_STREQ(buf, "All Pri");
    EXPECT_LT(QLIBCFileGetSectionValue(f.c_str(), "printers", "path", buf, sizeof buf), 0);
    EXPECT_LT(QLIBCFileGetSectionValue(f.c_str(), "empty", "comment", buf, sizeof buf), 0);
}

TEST(SectionFile, AddSectionAppendsOnceInInsertionOrder) {
    const std::string dir = scratch("secadd");
    const std::string f = dir + "/sub/printer.conf";  // the directory is created too
    PQLIBSZHASH h = make_hash({{"zeta", "1"}, {"alpha", "2"}, {"mid", "3"}});
    QLIBCSzHashSetValue(&h, "zeta", "replaced");  // keeps its place
    ASSERT_EQ(QLIBCFileAddSection(f.c_str(), "04a9:1827:A1", h, "\t%s = %s\n"), 1);
    EXPECT_EQ(qpt::read_file(f), "[04a9:1827:A1]\n\tzeta = replaced\n\talpha = 2\n\tmid = 3\n");
    struct stat st {};
    ASSERT_EQ(stat(f.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);

    EXPECT_EQ(QLIBCFileAddSection(f.c_str(), "04a9:1827:A1", h, "\t%s = %s\n"), 0);

    // A header without entries is a section that exists.
    qpt::write_file(f, "[printers]\n# nothing yet");
    EXPECT_EQ(QLIBCFileAddSection(f.c_str(), "printers", h, "\t%s = %s\n"), 0);
    EXPECT_EQ(qpt::read_file(f), "[printers]\n# nothing yet");

    ASSERT_EQ(QLIBCFileAddSection(f.c_str(), "Google Cloud Print", h, nullptr), 1);
    EXPECT_EQ(qpt::read_file(f),
              "[printers]\n# nothing yet\n[Google Cloud Print]\n\tzeta = replaced\n\talpha = 2\n\tmid = 3\n");
    QLIBCSzHashFree(h);
}

TEST(SectionFile, SetSectionReplacesOnlyThatSection) {
    const std::string f = scratch("secset") + "/printer.conf";
    const std::string before = "# top\r\n[A]\n\tk = 1\n\n";
    const std::string target_tail = "\n# about C\n";
    const std::string after = "[C]\n\tc = 3\nstray\n[B]\n\tb = second copy\n";
    qpt::write_file(f, before + "[B]\n\tb = 1\n# inside\nnoise\n\tother = 2\n" + target_tail + after);

    PQLIBSZHASH h = make_hash({{"b", "new"}, {"x", "y"}});
    ASSERT_EQ(QLIBCFileSetSection(f.c_str(), "B", "B", h, "\t%s = %s\n"), 1);
    EXPECT_EQ(qpt::read_file(f), before + "[B]\n\tb = new\n\tx = y\n" + target_tail + after);

    ASSERT_EQ(QLIBCFileSetSection(f.c_str(), "B", "B renamed", h, "\t%s = %s\n"), 1);
    EXPECT_EQ(qpt::read_file(f), before + "[B renamed]\n\tb = new\n\tx = y\n" + target_tail + after);
    // The later duplicate is now the first section named B.
    EXPECT_EQ(section(f, "B").second["b"], "second copy");

    const std::string now = qpt::read_file(f);
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(QLIBCFileSetSection(f.c_str(), "nope", "nope", h, "\t%s = %s\n"), 0);
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
    EXPECT_LT(QLIBCFileSetSection(f.c_str(), "A", "C", h, "\t%s = %s\n"), 1);  // C exists
    EXPECT_EQ(qpt::read_file(f), now);
    EXPECT_LT(QLIBCFileSetSection((f + ".missing").c_str(), "A", "A", h, nullptr), 1);
    EXPECT_FALSE(qpt::exists(f + ".missing"));
    QLIBCSzHashFree(h);
}

TEST(SectionFile, SetSectionValue) {
    const std::string f = scratch("secvalue") + "/printer.conf";
    const std::string after = "[other]\n\tname = x\n";
    qpt::write_file(f, "[P]\n\tname = a\n\tmode = lpr\n\tname = dup\n\n# next\n" + after);
    ASSERT_EQ(QLIBCFileSetSectionValue(f.c_str(), "P", "name", "b"), 0);
    EXPECT_EQ(qpt::read_file(f), "[P]\n\tname = b\n\tmode = lpr\n\n# next\n" + after);
    ASSERT_EQ(QLIBCFileSetSectionValue(f.c_str(), "P", "cups printer name", "usbprinter1"), 0);
    EXPECT_EQ(qpt::read_file(f), "[P]\n\tname = b\n\tmode = lpr\n\tcups printer name = usbprinter1\n\n# next\n" + after);
    ASSERT_EQ(QLIBCFileSetSectionValue(f.c_str(), "other", "k", "v"), 0);
    EXPECT_EQ(section(f, "other").second, (Map{{"name", "x"}, {"k", "v"}}));

    const std::string now = qpt::read_file(f);
    EXPECT_LT(QLIBCFileSetSectionValue(f.c_str(), "absent", "k", "v"), 0);
    EXPECT_EQ(qpt::read_file(f), now);
}

// Writers copy what lies outside the changed section as whole runs of bytes
// and find headers by looking only at lines that begin with '['; lines that
// merely contain a bracketed name must neither be taken for the header nor
// shift where the copied runs begin and end.
TEST(SectionFile, HeadersAmongLookalikesInALargeFile) {
    const std::string f = scratch("seclarge") + "/printer.conf";
    std::string before;
    for (int i = 0; i < 2000; ++i)
        before += "[S" + std::to_string(i) + "]\n\tname = [P]\n\tmode = x[P]\n[P\n  [P]] \n";
    before += "\tk = v [P]\n";
    const std::string header = " \t[P] \r\n";
    const std::string tail = "\n; about T\n";
    std::string after;
    for (int i = 0; i < 2000; ++i) after += "[T" + std::to_string(i) + "]\r\n\tname = t\n";
    qpt::write_file(f, before + header + "\tmode = old\n\tname = p\n" + tail + after);

    EXPECT_EQ(section(f, "P").second, (Map{{"mode", "old"}, {"name", "p"}}));
    EXPECT_EQ(section(f, "P]").second, Map{});  // "  [P]] " is the header of "P]"
    EXPECT_EQ(section(f, "S1999").second, (Map{{"name", "[P]"}, {"mode", "x[P]"}}));
    EXPECT_EQ(section(f, "T1999").second, (Map{{"name", "t"}}));

    PQLIBSZHASH h = make_hash({{"mode", "new"}});
    ASSERT_EQ(QLIBCFileSetSection(f.c_str(), "P", "P", h, "\t%s = %s\n"), 1);
    EXPECT_EQ(qpt::read_file(f), before + header + "\tmode = new\n" + tail + after);
    ASSERT_EQ(QLIBCFileSetSectionValue(f.c_str(), "P", "driver", "d"), 0);
    EXPECT_EQ(qpt::read_file(f), before + header + "\tmode = new\n\tdriver = d\n" + tail + after);
    EXPECT_EQ(QLIBCFileAddSection(f.c_str(), "P", h, nullptr), 0);
    ASSERT_EQ(QLIBCFileAddSection(f.c_str(), "[P]", h, nullptr), 1);
    EXPECT_EQ(qpt::read_file(f), before + header + "\tmode = new\n\tdriver = d\n" + tail + after +
                                     "[[P]]\n\tmode = new\n");
    QLIBCSzHashFree(h);
}

TEST(SectionFile, HostileNamesKeysAndValuesAreNeutralised) {
    const std::string f = scratch("secforge") + "/printer.conf";
    PQLIBSZHASH h = make_hash({{"mode", "lpr\n[printers]\n\tpath = /etc"}, {"key\r\nforged", "v"}});
    ASSERT_EQ(QLIBCFileAddSection(f.c_str(), "P", h, nullptr), 1);
    EXPECT_EQ(section(f, "printers").first, 0);
    auto [n, m] = section(f, "P");
    EXPECT_EQ(n, 2);
    EXPECT_EQ(m["mode"], "lpr [printers] \tpath = /etc");  // a tab cannot end a line
    EXPECT_EQ(m["key  forged"], "v");
    ASSERT_EQ(QLIBCFileSetSectionValue(f.c_str(), "P", "mode", "a\n[x]"), 0);
    EXPECT_EQ(section(f, "x").first, 0);

    const std::string now = qpt::read_file(f);
    for (const char *bad : {"a=b", "[k", "#k", ";k"}) {
        PQLIBSZHASH b = make_hash({{"fine", "1"}, {bad, "2"}});
        EXPECT_LT(QLIBCFileSetSection(f.c_str(), "P", "P", b, nullptr), 1) << bad;
        EXPECT_LT(QLIBCFileAddSection(f.c_str(), "Q", b, nullptr), 0) << bad;
        EXPECT_LT(QLIBCFileSetSectionValue(f.c_str(), "P", bad, "v"), 0) << bad;
        QLIBCSzHashFree(b);
    }
    EXPECT_EQ(qpt::read_file(f), now);
    QLIBCSzHashFree(h);
}

TEST(Rewrite, OwnerModeAndLinksSurvive) {
    const std::string dir = scratch("meta");
    const std::string f = dir + "/printer.conf";
    qpt::write_file(f, "[P]\n\tk = 1\n");
    ASSERT_EQ(chmod(f.c_str(), 0640), 0);
    const bool root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(chown(f.c_str(), 1234, 4321), 0);
    }
    ASSERT_EQ(QLIBCFileSetSectionValue(f.c_str(), "P", "k", "2"), 0);
    ASSERT_EQ(QLIBCFileSetKeyValue(f.c_str(), "other", "3", nullptr), 0);
    struct stat st {};
    ASSERT_EQ(stat(f.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    if (root) {
        EXPECT_EQ(st.st_uid, 1234u);
        EXPECT_EQ(st.st_gid, 4321u);
    }
    // Written through a symbolic link, the file it names changes; the link stays.
    ASSERT_EQ(symlink(f.c_str(), (dir + "/link.conf").c_str()), 0);
    ASSERT_EQ(QLIBCFileSetSectionValue((dir + "/link.conf").c_str(), "P", "k", "via link"), 0);
    struct stat lst {};
    ASSERT_EQ(lstat((dir + "/link.conf").c_str(), &lst), 0);
    EXPECT_TRUE(S_ISLNK(lst.st_mode));
    EXPECT_EQ(section(f, "P").second["k"], "via link");

    // A path the library cannot create fails with the slot set, and leaves nothing.
    QLIBCErrSetEx(0, "", 0);
    EXPECT_LT(QLIBCFileSetKeyValue((f + "/below-a-file").c_str(), "k", "v", nullptr), 0);
    EXPECT_NE(QLIBCErrGet(), 0u);
    EXPECT_EQ(count_prefixed(dir, ".printer.conf.") - 1, 0);  // only the lock file
}

TEST(Rewrite, ConcurrentProcessesLoseNothing) {
    const std::string dir = scratch("concurrent");
    const std::string conf = dir + "/printer.conf";
    const std::string tab = dir + "/usbtab";
    qpt::write_file(conf, "[shared]\n\tk = 0\n");
    constexpr int kProcs = 6, kRounds = 25;
    std::vector<pid_t> kids;
    for (int p = 0; p < kProcs; ++p) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            int bad = 0;
            std::string name = "proc" + std::to_string(p);
            PQLIBSZHASH h = make_hash({{"round", "start"}, {"owner", name.c_str()}});
            bad += QLIBCFileAddSection(conf.c_str(), name.c_str(), h, nullptr) != 1;
            for (int r = 0; r < kRounds; ++r) {
                std::string v = std::to_string(r);
                bad += QLIBCFileSetSectionValue(conf.c_str(), name.c_str(), "round", v.c_str()) != 0;
                bad += QLIBCFileSetKeyValue(tab.c_str(), ("lp" + std::to_string(p)).c_str(), v.c_str(), nullptr) != 0;
                bad += QLIBCFileSetSectionValue(conf.c_str(), "shared", name.c_str(), v.c_str()) != 0;
            }
            QLIBCSzHashFree(h);
            _exit(bad);
        }
        kids.push_back(pid);
    }
    for (pid_t pid : kids) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    const std::string last = std::to_string(kRounds - 1);
    auto shared = section(conf, "shared");
    EXPECT_EQ(shared.first, kProcs + 1);
    for (int p = 0; p < kProcs; ++p) {
        std::string name = "proc" + std::to_string(p);
        EXPECT_EQ(section(conf, name.c_str()).second, (Map{{"round", last}, {"owner", name}}));
        EXPECT_EQ(shared.second[name], last);
        EXPECT_EQ(get_kv(tab, ("lp" + std::to_string(p)).c_str()), last);
    }
    // Nothing torn or doubled: headers plus shared entries plus two per process.
    const std::string text = qpt::read_file(conf);
    EXPECT_EQ(std::count(text.begin(), text.end(), '['), kProcs + 1);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), (kProcs + 1) * 2 + kProcs * 2);
}

// The target section as a reader sees it: "0" for the first version, the
// generation every key carries for the later ones, "" for anything else.
std::string target_generation(const std::string &f, const std::string &head, const std::string &tail, int keys) {
    std::string text = qpt::read_file(f);
    if (text.size() < head.size() + tail.size() || text.compare(0, head.size(), head) != 0 ||
        text.compare(text.size() - tail.size(), tail.size(), tail) != 0)
        return "";
    auto [n, m] = section(f, "target");
    if (n == 1) return m.count("gen") ? m["gen"] : "";
    if (n != keys) return "";
    const std::string gen = m["key0"];
    for (const auto &kv : m)
        if (kv.second != gen) return "";
    return gen;
}

TEST(Rewrite, ReadersAndKilledWritersSeeOldOrNewFile) {
    const std::string dir = scratch("crash");
    const std::string f = dir + "/printer.conf";
    const std::string head = "[before]\n\tb = 1\n";
    const std::string tail = "[after]\n\ta = 1\n";
    qpt::write_file(f, head + "[target]\n\tgen = 0\n" + tail);
    constexpr int kKeys = 300;
    std::mt19937 rng(12345);
    int new_versions = 0;
    for (int round = 0; round < 20; ++round) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            for (int gen = 1;; ++gen) {
                PQLIBSZHASH h = QLIBCSzHashAlloc(kKeys);
                for (int k = 0; k < kKeys; ++k)
                    QLIBCSzHashSetValue(&h, ("key" + std::to_string(k)).c_str(), std::to_string(gen).c_str());
                QLIBCFileSetSection(f.c_str(), "target", "target", h, nullptr);
                QLIBCSzHashFree(h);
            }
        }
        // Read without a lock while the writer works, then kill it at a
        // random moment; the first round waits for a first new version.
        const auto until = std::chrono::steady_clock::now() +
                           std::chrono::milliseconds(std::uniform_int_distribution<int>(1, 30)(rng));
        bool saw_new = round > 0;
        const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while ((std::chrono::steady_clock::now() < until || !saw_new) && std::chrono::steady_clock::now() < give_up) {
            std::string gen = target_generation(f, head, tail, kKeys);
            ASSERT_NE(gen, "") << "torn file seen by a reader:\n" << qpt::read_file(f).substr(0, 300);
            saw_new = saw_new || gen != "0";
        }
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        std::string gen = target_generation(f, head, tail, kKeys);
        ASSERT_NE(gen, "") << "torn file after a kill";
        new_versions += gen != "0";
    }
    EXPECT_GT(new_versions, 0);
    // The next writer clears temporary files a killed writer left behind.
    ASSERT_EQ(QLIBCFileSetSectionValue(f.c_str(), "before", "b", "2"), 0);
    EXPECT_EQ(count_prefixed(dir, ".printer.conf."), 1);  // the lock file alone
}

}  // namespace
