// Device ID lookups (lenient search by alias) and the pair walk of model
// detection.
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "conf_test_util.hpp"
#include "qoraprinter.h"
#include "qp_test.hpp"
#include "stringid/model_walk.hpp"

namespace {

using Lookup = int (*)(char *, char *, int);

// A device ID string placed at the very end of a read-only page that is
// followed by an inaccessible one: a write into it or a read past its NUL
// crashes the test.
class ReadOnlyString {
public:
    explicit ReadOnlyString(const std::string &s) {
        page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        len_ = ((s.size() + 1 + page_ - 1) / page_ + 1) * page_;
        base_ = static_cast<char *>(mmap(nullptr, len_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        EXPECT_NE(base_, MAP_FAILED);
        str_ = base_ + len_ - page_ - (s.size() + 1);
        std::memcpy(str_, s.c_str(), s.size() + 1);
        mprotect(base_, len_ - page_, PROT_READ);
        mprotect(base_ + len_ - page_, page_, PROT_NONE);
    }
    ~ReadOnlyString() { munmap(base_, len_); }
    char *get() { return str_; }

private:
    size_t page_ = 0, len_ = 0;
    char *base_ = nullptr;
    char *str_ = nullptr;
};

struct LookupCase {
    const char *what;
    Lookup fn;
    const char *id;
    int rc;
    const char *out;  // nullptr: buffer untouched
};

TEST(StringIdLookup, AliasesCaseAndPlacement) {
    const LookupCase cases[] = {
        {"maker", QORAPrinterConfStringIdGetVendor, "MFG:ACME;MDL:Laser 100;", 0, "ACME"},
        {"model", QORAPrinterConfStringIdGetModel, "MFG:ACME;MDL:Laser 100;", 0, "Laser 100"},
        {"alias order, not position", QORAPrinterConfStringIdGetVendor, "MFG:Short;MANUFACTURER:Long Name;", 0,
         "Long Name"},
        {"MODEL before MDL", QORAPrinterConfStringIdGetModel, "MDL:A;MODEL:B;", 0, "B"},
        {"DESCRIPTION before DES", QORAPrinterConfStringIdGetModel, "DES:x;DESCRIPTION:y;", 0, "y"},
        {"MFR is the last maker alias", QORAPrinterConfStringIdGetVendor, "MFR:Third;", 0, "Third"},
        {"key case ignored, value case kept", QORAPrinterConfStringIdGetVendor, "mfg:acme;", 0, "acme"},
        {"found inside another value", QORAPrinterConfStringIdGetModel, "DES:Office MODEL:Z2;MDL:Y1;", 0, "Z2"},
        {"found at the end of a longer key", QORAPrinterConfStringIdGetVendor, "XMFG:tail;", 0, "tail"},
        {"no closing semicolon", QORAPrinterConfStringIdGetModel, "MFG:ACME;MDL:X9", 0, "X9"},
        {"blank after the colon stays", QORAPrinterConfStringIdGetModel, "MDL: X9 ;", 0, " X9 "},
        {"colon inside the value", QORAPrinterConfStringIdGetCmd, "CMD:a:b;", 0, "a:b"},
        {"empty value", QORAPrinterConfStringIdGetVendor, "MFG:;", 0, ""},
        {"command set", QORAPrinterConfStringIdGetCmd, "MFG:ACME;CMD:PCL,PJL;", 0, "PCL,PJL"},
        {"COMMAND SET with a blank", QORAPrinterConfStringIdGetCmd, "command set:ESC/P;CMD:X;", 0, "ESC/P"},
        {"no maker key", QORAPrinterConfStringIdGetVendor, "MDL:X9;", -1, nullptr},
        {"key cut by the end of the string", QORAPrinterConfStringIdGetVendor, "MDL:X9;MF", -1, nullptr},
        {"non-letters must match exactly", QORAPrinterConfStringIdGetVendor, "MFG;ACME;MFG=x;", -1, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        ReadOnlyString id(c.id);
        char buf[64];
        std::memset(buf, '#', sizeof buf);
        buf[sizeof buf - 1] = '\0';
        const std::string before = buf;
        conft::mark_slot();
        qpt::LogCapture log;
        EXPECT_EQ(c.fn(id.get(), buf, sizeof buf), c.rc);
        EXPECT_STREQ(buf, c.out ? c.out : before.c_str());
        EXPECT_STREQ(id.get(), c.id);
        EXPECT_TRUE(conft::slot_is_marked()) << "a lookup that ran must not touch the error slot";
        EXPECT_EQ(log.lines().size(), 0u) << log.dump();
    }
}

TEST(StringIdLookup, GeneralParseAndCutting) {
    ReadOnlyString id("MFG:ACME;SN:0123456789abcdefghij;mdl:x;");
    char buf[32] = "untouched";

    EXPECT_EQ(QORAPrinterConfStringIdParse(id.get(), "sn:", buf, 1), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(QORAPrinterConfStringIdParse(id.get(), "SN:", buf, 8), 0);
    EXPECT_STREQ(buf, "0123456");
    EXPECT_EQ(QORAPrinterConfStringIdParse(id.get(), "SN:", buf, 21), 0);
    EXPECT_STREQ(buf, "0123456789abcdefghij");
    // A key is any text: without its colon it matches a shorter piece.
    EXPECT_EQ(QORAPrinterConfStringIdParse(id.get(), "M", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "FG:ACME");
    std::strcpy(buf, "untouched");
    EXPECT_EQ(QORAPrinterConfStringIdParse(id.get(), "MFG:ACME;SN:0123456789abcdefghij;mdl:x;!", buf, sizeof buf), -1);
    EXPECT_STREQ(buf, "untouched");
}

TEST(StringIdLookup, BadArgumentsLogTheFirstFailedCheck) {
    char good[] = "MFG:ACME;";
    char empty[] = "";
    char buf[16];
    struct Case {
        char *id;
        const char *type;
        char *out;
        int size;
        const char *check;
    } cases[] = {
        {nullptr, "MFG:", buf, 16, "((void *)0) != szStringId"},
        {nullptr, nullptr, nullptr, 0, "((void *)0) != szStringId"},
        {empty, "MFG:", buf, 16, "0 != szStringId[0]"},
        {good, nullptr, buf, 16, "((void *)0) != szType"},
        {good, "", nullptr, 16, "0 != szType[0]"},
        {good, "MFG:", nullptr, 16, "((void *)0) != szBuf"},
        {good, "MFG:", buf, 0, "0 < cbBuf"},
        {good, "MFG:", buf, -5, "0 < cbBuf"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.check);
        std::strcpy(buf, "keep");
        qpt::LogCapture log;
        EXPECT_EQ(QORAPrinterConfStringIdParse(c.id, c.type, c.out, c.size), -1);
        EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
        EXPECT_STREQ(QLIBCErrorGetFile(), "printer_conf_string_id_parse.cpp");
        auto lines = log.lines();
        ASSERT_EQ(lines.size(), 1u) << log.dump();
        EXPECT_EQ(lines[0].severity, 3);
        const std::string want = "printer_conf_string_id_parse.cpp:" + std::to_string(QLIBCErrorGetLine()) +
                                 " Invaild Argument (" + c.check + ")=[0]";
        EXPECT_EQ(lines[0].text, want);
        EXPECT_STREQ(buf, "keep");
    }
}

// The shortcuts check nothing themselves: a bad argument fails once per
// alias key, each failure logged.
TEST(StringIdLookup, ShortcutsFailOncePerAlias) {
    struct Case {
        Lookup fn;
        size_t keys;
    } cases[] = {{QORAPrinterConfStringIdGetVendor, 3}, {QORAPrinterConfStringIdGetModel, 4},
                 {QORAPrinterConfStringIdGetCmd, 2}};
    for (const auto &c : cases) {
        char empty[] = "";
        char buf[8] = "keep";
        qpt::LogCapture log;
        EXPECT_EQ(c.fn(empty, buf, sizeof buf), -1);
        EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
        EXPECT_EQ(log.count(3, "Invaild Argument (0 != szStringId[0])=[0]"), c.keys) << log.dump();
        EXPECT_EQ(log.lines().size(), c.keys);
        EXPECT_STREQ(buf, "keep");

        char id[] = "MFG:A;";
        log.reset();
        EXPECT_EQ(c.fn(id, nullptr, 8), -1);
        EXPECT_EQ(log.count(3, "Invaild Argument (((void *)0) != szBuf)=[0]"), c.keys) << log.dump();
    }
}

// ---- the pair walk ------------------------------------------------------------

TEST(ModelWalk, LimitsOfOnePair) {
    const std::string k1024(1024, 'K'), k1025(1025, 'K');
    struct Case {
        const char *what;
        std::string id;
        const char *maker;  // nullptr: not found
        const char *model;
    } cases[] = {
        {"key of 1024 characters scans", k1024 + ":v;MFG:A;", "A", nullptr},
        {"key of 1025 characters resumes after the semicolon", k1025 + ":v;MDL:M;MFG:A;", "A", "M"},
        {"empty key", ":x;MFG:A;", "A", nullptr},
        {"empty value is skipped, the next pair counts", "MFG:;MFG:B;", "B", nullptr},
        {"stops after both", "MFG:a;MDL:b;MFG:c;MDL:d;", "a", "b"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        const qp::DetectedModel f = qp::walk_devid_pairs(c.id);
        EXPECT_EQ(f.has_maker, c.maker != nullptr);
        EXPECT_EQ(f.has_model, c.model != nullptr);
        if (c.maker) {
            EXPECT_EQ(f.maker, c.maker);
        }
        if (c.model) {
            EXPECT_EQ(f.model, c.model);
        }
    }
}

// A value longer than the walk's 1024-character field is read in part; its
// tail is not taken for the next pair, even when it looks like one.
TEST(ModelWalk, OverlongValueTailIsNotAPair) {
    const std::string id = "DES:" + std::string(1100, 'v') + "MDL:fake;MFG:real;MDL:M;";
    const qp::DetectedModel f = qp::walk_devid_pairs(id);
    EXPECT_EQ(f.maker, "real");
    EXPECT_EQ(f.model, "M");
    const std::string longmaker = "MFG:" + std::string(1500, 'x') + ";";
    EXPECT_EQ(qp::walk_devid_pairs(longmaker).maker.size(), 1024u);
}

// ---- model detection through the helper library -------------------------------

class ModelDetect : public conft::ConfTest {};

TEST_F(ModelDetect, TableOfStrings) {
    const std::string v200(200, 'v');
    struct Case {
        const char *id;
        std::string maker;
        std::string model;
    } cases[] = {
        {"MFG:ACME;CMD:PCL;MDL:Laser 100;CLS:PRINTER;", "ACME", "Laser 100"},
        {"MANUFACTURER:ACME Corp;MODEL:X1;MFG:Other;", "ACME Corp", "X1"},
        {"MDL:X1;MFG:ACME;", "ACME", "X1"},
        {"mfg:acme;mdl:x1;", "keep-maker", "keep-model"},
        {"MFG:ACME; MDL:X1;", "ACME", "keep-model"},
        {"CLS;MFG:ACME;MDL:X1;", "keep-maker", "X1"},
        {"MFG:ACME;MDL:X1", "ACME", "X1"},
    };
    std::string conf;
    int n = 0;
    for (const auto &c : cases) {
        conf += "[p" + std::to_string(n++) + "]\n\tusblp string id = " + c.id + "\n";
    }
    conf += "[long]\n\tusblp string id = MFG:" + v200 + ";MDL:" + v200 + "\n";
    qpt::write_file(conft::kConf, conf);

    n = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.id);
        PrinterConf pc{};
        conft::put(pc.szPrinterId, "p" + std::to_string(n++));
        conft::put(pc.szDetectedVendor, "keep-maker");
        conft::put(pc.szDetectedModel, "keep-model");
        conft::put(pc.szDriver, "drv");
        EXPECT_EQ(QORAPrinterModelDetect(&pc), 0);
        EXPECT_EQ(std::string(pc.szDetectedVendor), c.maker);
        EXPECT_EQ(std::string(pc.szDetectedModel), c.model);
        EXPECT_STREQ(pc.szDriver, "drv");
    }
    PrinterConf pc{};
    conft::put(pc.szPrinterId, "long");
    EXPECT_EQ(QORAPrinterModelDetect(&pc), 0);
    EXPECT_EQ(std::string(pc.szDetectedVendor), v200.substr(0, 127));
    EXPECT_EQ(std::string(pc.szDetectedModel), v200.substr(0, 127));
}

TEST_F(ModelDetect, NoStringIsAQuietFailure) {
    qpt::write_file(conft::kConf, "[empty]\n\tusblp string id = \n\tproducer = x\n");
    for (const char *id : {"empty", "missing"}) {
        SCOPED_TRACE(id);
        PrinterConf pc{};
        conft::put(pc.szPrinterId, id);
        conft::put(pc.szDetectedVendor, "keep");
        qpt::LogCapture log;
        EXPECT_EQ(QORAPrinterModelDetect(&pc), -1);
        EXPECT_EQ(QLIBCErrGet(), ERR_EXTERNAL_FAILED);
        EXPECT_STREQ(QLIBCErrorGetFile(), "printer_model_detect.cpp");
        EXPECT_STREQ(pc.szDetectedVendor, "keep");
        EXPECT_EQ(log.count("printer_model_detect.cpp"), 0u) << log.dump();
    }
    qpt::LogCapture log;
    EXPECT_EQ(QORAPrinterModelDetect(nullptr), -1);
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
    EXPECT_STREQ(QLIBCErrorGetFile(), "printer_model_detect.cpp");
    EXPECT_EQ(log.lines().size(), 0u) << log.dump();
}

}  // namespace
