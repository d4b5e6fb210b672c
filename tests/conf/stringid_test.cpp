// Device ID lookups (lenient search by alias) and model detection's pair walk.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "conf_test_util.hpp"
#include "qoraprinter.h"
#include "qp_test.hpp"
#include "stringid/model_walk.hpp"

namespace {

// A device ID string at the very end of a read-only page followed by an
// inaccessible one: a write into it or a read past its NUL crashes the test.
struct ReadOnlyString {
    explicit ReadOnlyString(const std::string &s) : len_(((s.size() + page_) / page_ + 1) * page_) {
        base_ = static_cast<char *>(mmap(nullptr, len_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        str_ = static_cast<char *>(std::memcpy(base_ + len_ - page_ - (s.size() + 1), s.c_str(), s.size() + 1));
        mprotect(base_, len_ - page_, PROT_READ);
        mprotect(base_ + len_ - page_, page_, PROT_NONE);
    }
    ~ReadOnlyString() { munmap(base_, len_); }
    char *get() { return str_; }
    const size_t page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE)), len_;
    char *base_ = nullptr, *str_ = nullptr;
};

constexpr auto kMaker = QORAPrinterConfStringIdGetVendor;
constexpr auto kModel = QORAPrinterConfStringIdGetModel;
constexpr auto kCmd = QORAPrinterConfStringIdGetCmd;
constexpr const char *kSn = "MFG:ACME;SN:0123456789abcdefghij;mdl:x;";

// A lookup that ran leaves the error slot alone and logs nothing; it writes
// nothing past its buffer's size, and nothing at all when it finds nothing.
TEST(StringIdLookup, AliasesCaseAndPlacement) {
    const struct {
        const char *what;
        int (*fn)(char *, char *, int);  // nullptr: the general parse by key
        const char *id, *out;            // out nullptr: not found
        const char *key = nullptr;
        int size = 64;
    } cases[] = {
        {"alias order, not position", kMaker, "MFG:Short;MANUFACTURER:Long Name;", "Long Name"},
        {"MODEL before MDL", kModel, "MDL:A;MODEL:B;", "B"},
        {"DESCRIPTION before DES", kModel, "DES:x;DESCRIPTION:y;", "y"},
        {"MFR is the last maker alias", kMaker, "MFR:Third;", "Third"},
        {"key case ignored, value case kept", kMaker, "mfg:acme;", "acme"},
        {"found inside another value", kModel, "DES:Office MODEL:Z2;MDL:Y1;", "Z2"},
        {"no closing semicolon", kModel, "MFG:ACME;MDL:X9", "X9"},
        {"blank after the colon stays", kModel, "MDL: X9 ;", " X9 "},
        {"colon inside the value", kCmd, "MFG:ACME;CMD:a:b;", "a:b"},
        {"empty value", kMaker, "MFG:;", ""},
        {"COMMAND SET with a blank", kCmd, "command set:ESC/P;CMD:X;", "ESC/P"},
        {"no maker key", kMaker, "MDL:X9;", nullptr},
        {"key cut by the end of the string", kMaker, "MDL:X9;MF", nullptr},
        {"non-letters must match exactly", kMaker, "MFG;ACME;MFG=x;", nullptr},
        {"cut to one byte", nullptr, kSn, "", "sn:", 1},
        {"cut to the buffer", nullptr, kSn, "0123456", "SN:", 8},
        {"exact fit", nullptr, kSn, "0123456789abcdefghij", "SN:", 21},
        {"any text is a key: without its colon a shorter piece", nullptr, kSn, "FG:ACME", "M"},
        {"key longer than the string", nullptr, kSn, nullptr, "MFG:ACME;SN:0123456789abcdefghij;mdl:x;!"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        ReadOnlyString id(c.id);
        const std::string hashes(63, '#');
        char buf[64];
        std::memcpy(buf, hashes.c_str(), sizeof buf);
        conft::mark_slot();
        qpt::LogCapture log;
        EXPECT_EQ(c.fn ? c.fn(id.get(), buf, c.size) : QORAPrinterConfStringIdParse(id.get(), c.key, buf, c.size),
                  c.out ? 0 : -1);
        EXPECT_STREQ(buf, c.out ? c.out : hashes.c_str());
        EXPECT_EQ(std::string(buf + std::min(c.size, 63)), hashes.substr(std::min(c.size, 63)));
        EXPECT_TRUE(conft::slot_is_marked());
        EXPECT_EQ(log.lines().size(), 0u) << log.dump();
    }
}

TEST(StringIdLookup, BadArgumentsLogTheFirstFailedCheck) {
    char good[] = "MFG:ACME;", empty[] = "", buf[16];
    const struct {
        const char *check;  // the first that fails, as logged
        char *id;
        const char *type;
        char *out;
        int size;
    } cases[] = {
        {"((void *)0) != szStringId", nullptr, "MFG:", buf, 16},
        {"((void *)0) != szStringId", nullptr, nullptr, nullptr, 0},
        {"0 != szStringId[0]", empty, "MFG:", buf, 16},
        {"((void *)0) != szType", good, nullptr, buf, 16},
        {"0 != szType[0]", good, "", nullptr, 16},
        {"((void *)0) != szBuf", good, "MFG:", nullptr, 16},
        {"0 < cbBuf", good, "MFG:", buf, 0},
        {"0 < cbBuf", good, "MFG:", buf, -5},
    };
    for (const auto &c : cases) {
        std::strcpy(buf, "keep");
        qpt::LogCapture log;
        EXPECT_EQ(QORAPrinterConfStringIdParse(c.id, c.type, c.out, c.size), -1) << c.check;
        EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
        EXPECT_STREQ(QLIBCErrorGetFile(), "printer_conf_string_id_parse.cpp");
        const std::string want = " Invaild Argument (" + std::string(c.check) + ")=[0]";
        EXPECT_EQ(log.count(3, "printer_conf_string_id_parse.cpp:" + std::to_string(QLIBCErrorGetLine()) + want), 1u);
        EXPECT_EQ(log.lines().size(), 1u) << log.dump();
        EXPECT_STREQ(buf, "keep");
    }
    // The shortcuts check nothing themselves: a bad argument fails once per
    // alias key, each failure logged.
    const std::pair<int (*)(char *, char *, int), size_t> shortcuts[] = {{kMaker, 3}, {kModel, 4}, {kCmd, 2}};
    for (const auto &[fn, keys] : shortcuts) {
        qpt::LogCapture log;
        EXPECT_EQ(fn(empty, buf, sizeof buf), -1);
        EXPECT_EQ(log.count(3, "Invaild Argument (0 != szStringId[0])=[0]"), keys) << log.dump();
        EXPECT_EQ(log.lines().size(), keys);
    }
}

// Keys are matched whole and with case; a value longer than the walk's
// 1024-character field is read in part, its tail not taken for a pair.
TEST(ModelWalk, Pairs) {
    const struct {
        std::string id, maker, model;  // empty: not found
    } cases[] = {
        {"MANUFACTURER:ACME Corp;MODEL:X1;MFG:Other;MDL:X2;", "ACME Corp", "X1"},
        {"mfg:acme;mdl:x1;", "", ""},
        {"MFG:ACME; MDL:X1", "ACME", ""},
        {"CLS;MFG:ACME;MDL:X1", "", "X1"},
        {std::string(1024, 'K') + ":v;MFG:A;", "A", ""},
        {std::string(1025, 'K') + ":v;MDL:M;MFG:A;", "A", "M"},
        {"MFG:;MFG:B;", "B", ""},
        {"DES:" + std::string(1100, 'v') + "MDL:fake;MFG:real;MDL:M;", "real", "M"},
        {"MFG:" + std::string(1500, 'x') + ";", std::string(1024, 'x'), ""},
    };
    for (const auto &c : cases) {
        const qp::DetectedModel f = qp::walk_devid_pairs(c.id);
        EXPECT_TRUE(f.has_maker == !c.maker.empty() && f.maker == c.maker) << c.id.substr(0, 40);
        EXPECT_TRUE(f.has_model == !c.model.empty() && f.model == c.model) << c.id.substr(0, 40);
    }
}

// Model detection reads the stored device ID; what it cannot find keeps the
// record's old value, and the rest of the record is not touched.
class ModelDetect : public conft::ConfTest {};

TEST_F(ModelDetect, TableOfStrings) {
    const std::string v200(200, 'v');
    const struct {
        std::string id, maker, model;
    } cases[] = {
        {"MFG:ACME;CMD:PCL;MDL:Laser 100;CLS:PRINTER;", "ACME", "Laser 100"},
        {"mfg:acme;mdl:x1;", "keep-maker", "keep-model"},
        {"CLS;MFG:ACME;MDL:X1;", "keep-maker", "X1"},
        {"MFG:" + v200 + ";MDL:" + v200, v200.substr(0, 127), v200.substr(0, 127)},
    };
    std::string conf;
    for (const auto &c : cases) conf += "[p" + std::to_string(&c - cases) + "]\n\tusblp string id = " + c.id + "\n";
    qpt::write_file(conft::kConf, conf);
    for (const auto &c : cases) {
        PrinterConf pc{};
        conft::put(pc.szPrinterId, "p" + std::to_string(&c - cases));
        conft::put(pc.szDetectedVendor, "keep-maker");
        conft::put(pc.szDetectedModel, "keep-model");
        conft::put(pc.szDriver, "drv");
        EXPECT_EQ(QORAPrinterModelDetect(&pc), 0) << c.id;
        EXPECT_EQ(pc.szDetectedVendor, c.maker);
        EXPECT_EQ(pc.szDetectedModel, c.model);
        EXPECT_STREQ(pc.szDriver, "drv");
    }
}

TEST_F(ModelDetect, NoStringIsAQuietFailure) {
    qpt::write_file(conft::kConf, "[empty]\n\tusblp string id = \n\tproducer = x\n");
    for (const char *id : {"empty", "missing", static_cast<const char *>(nullptr)}) {
        PrinterConf pc{};
        if (id) conft::put(pc.szPrinterId, id);
        conft::put(pc.szDetectedVendor, "keep");
        qpt::LogCapture log;
        EXPECT_EQ(QORAPrinterModelDetect(id ? &pc : nullptr), -1);
        EXPECT_EQ(QLIBCErrGet(), id ? ERR_EXTERNAL_FAILED : ERR_BAD_PARAMETER);
        EXPECT_STREQ(QLIBCErrorGetFile(), "printer_model_detect.cpp");
        EXPECT_STREQ(pc.szDetectedVendor, "keep");
        EXPECT_EQ(log.count("printer_model_detect.cpp"), 0u) << log.dump();
    }
}

}  // namespace
