// Device ID lookups (lenient search by alias) and model detection.
#include <sys/mman.h>

#include <algorithm>

#include "conf_test_util.hpp"

namespace {

// A device ID string at the very end of a read-only page followed by an
// inaccessible one: a write into it or a read past its NUL crashes the test.
// (The strings here are shorter than a page.)
struct ReadOnlyString {
    explicit ReadOnlyString(const std::string &s) {
        str = static_cast<char *>(std::memcpy(base + page - s.size() - 1, s.c_str(), s.size() + 1));
        mprotect(base, page, PROT_READ);
        mprotect(base + page, page, PROT_NONE);
    }
    ~ReadOnlyString() { munmap(base, 2 * page); }
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    char *base = static_cast<char *>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    char *str = nullptr;
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
        int (*fn)(char *, char *, int);                       // nullptr: the general parse by key
        const char *id, *out, *key = nullptr; int size = 64;  // out nullptr: not found
    } cases[] = {
        {"alias order, not position", kMaker, "MFG:Short;MANUFACTURER:Long Name;", "Long Name"},
        {"DESCRIPTION before DES, key case ignored, value case kept", kModel, "des:x;description:Yy;", "Yy"},
        {"found inside another value", kModel, "DES:Office MODEL:Z2;MDL:Y1;", "Z2"},
        {"no closing semicolon, blanks kept", kModel, "MFG:ACME;MDL: X9 ", " X9 "},
        {"COMMAND SET with a blank, colon in the value", kCmd, "command set:ESC/P:2;CMD:X;", "ESC/P:2"},
        {"empty value", kMaker, "MFG:;", ""},
        {"key cut by the end of the string", kMaker, "MDL:X9;MF", nullptr},
        {"key at the very end of the string", nullptr, "MFG:ACME;SN:", "", "SN:"},
        {"non-letters must match exactly", kMaker, "MFG;ACME;MFG=x;", nullptr},
        {"cut to one byte", nullptr, kSn, "", "sn:", 1},
        {"exact fit", nullptr, kSn, "0123456789abcdefghij", "SN:", 21},
        {"key longer than the string", nullptr, kSn, nullptr, "MFG:ACME;SN:0123456789abcdefghij;mdl:x;!"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        ReadOnlyString id(c.id);
        const std::string hashes(63, '#');
        char buf[64];
        std::strcpy(buf, hashes.c_str());
        conft::mark_slot();
        qpt::LogCapture log;
        EXPECT_EQ(c.fn ? c.fn(id.str, buf, c.size) : QORAPrinterConfStringIdParse(id.str, c.key, buf, c.size),
                  c.out ? 0 : -1);
        EXPECT_STREQ(buf, c.out ? c.out : hashes.c_str());
        EXPECT_EQ(std::string(buf + std::min(c.size, 63)), hashes.substr(std::min(c.size, 63)));
        EXPECT_TRUE(conft::slot_is_marked());
        EXPECT_EQ(log.lines().size(), 0u) << log.dump();
    }
}

// Only the first failed check is logged, with the condition as written.
TEST(StringIdLookup, BadArgumentsLogTheFirstFailedCheck) {
    char good[] = "MFG:ACME;", buf[16];
    const struct { const char *check; char *id; const char *type; char *out; int size; } cases[] = {
        {"((void *)0) != szStringId", nullptr, nullptr, nullptr, 0},
        {"0 != szType[0]", good, "", nullptr, 16},
        {"0 < cbBuf", good, "MFG:", buf, -5},
    };
    for (const auto &c : cases) {
        std::strcpy(buf, "keep");
        qpt::LogCapture log;
        EXPECT_EQ(QORAPrinterConfStringIdParse(c.id, c.type, c.out, c.size), -1) << c.check;
        EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
        const std::string at = "printer_conf_string_id_parse.cpp:" + std::to_string(QLIBCErrorGetLine());
        EXPECT_TRUE(log.lines().size() == 1 && log.count(3, at + " Invaild Argument (" + c.check + ")=[0]") == 1)
            << log.dump();
        EXPECT_STREQ(buf, "keep");
    }
}

// Model detection reads the stored device ID pair by pair: keys are matched
// whole and with case, the first of each counts.  A key fits the walk's
// 1024-character field; a longer value is read in part and the next scan
// starts on its tail.  What it cannot find keeps its old value, the rest of
// the record untouched; no string at all fails quietly.
class ModelDetect : public conft::ConfTest {};

TEST_F(ModelDetect, FromTheStoredString) {
    const std::string v200(200, 'v'), k1024(1024, 'K');
    const struct { std::string id, maker, model; } cases[] = {  // id "-": none stored; empty: kept
        {"MANUFACTURER:ACME Corp;MODEL:X1;MFG:Other;MDL:X2;", "ACME Corp", "X1"},
        {"MFG:First;MFG:Second;MDL:M;", "First", "M"},
        {"mfg:acme;MDL:X1;", "", "X1"},
        {"CLS;MFG:ACME; MDL:X1;MDL:X2", "", "X2"},
        {k1024 + "K:v;MDL:M;MFG:A;", "A", "M"},
        {k1024 + ":" + std::string(1024, 'v') + "MDL:tail;MFG:A;MDL:M;", "A", "tail"},
        {"MFG:;MFG:B;", "B", ""},
        {"DES:" + std::string(1100, 'v') + "MDL:fake;MFG:real;MDL:M;", "real", "M"},
        {"MFG:" + v200 + ";MDL:" + v200, v200.substr(0, 127), v200.substr(0, 127)},
        {"", "", ""},
        {"-", "", ""},
    };
    std::string conf;
    for (const auto &c : cases)
        if (c.id != "-") conf += "[p" + std::to_string(&c - cases) + "]\n\tusblp string id = " + c.id + "\n";
    qpt::write_file(conft::kConf, conf);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.id.substr(0, 40));
        PrinterConf pc{};
        conft::put(pc.szPrinterId, "p" + std::to_string(&c - cases));
        conft::put(pc.szDetectedVendor, "keep-maker");
        conft::put(pc.szDetectedModel, "keep-model");
        conft::put(pc.szDriver, "drv");
        qpt::LogCapture log;
        const bool found = c.id.size() > 1;
        EXPECT_EQ(QORAPrinterModelDetect(&pc), found ? 0 : -1);
        EXPECT_TRUE(found || QLIBCErrGet() == ERR_EXTERNAL_FAILED);
        EXPECT_EQ(pc.szDetectedVendor, c.maker.empty() ? "keep-maker" : c.maker);
        EXPECT_EQ(pc.szDetectedModel, c.model.empty() ? "keep-model" : c.model);
        EXPECT_STREQ(pc.szDriver, "drv");
        EXPECT_EQ(log.count("printer_model_detect.cpp"), 0u) << log.dump();
    }
    EXPECT_EQ(QORAPrinterModelDetect(nullptr), -1);
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
}

}  // namespace
