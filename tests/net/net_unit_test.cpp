// Readers of the network tools' output fed with recorded output, and the
// network printer section of printer.conf.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/file.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include "net/net_scan.hpp"
#include "qoraprinter.h"
#include "qp_test.hpp"

namespace {

// A stream holding the text, as a tool's pipe would deliver it.
struct Output {
    explicit Output(const std::string &text) : f(tmpfile()) {
        fwrite(text.data(), 1, text.size(), f);
        rewind(f);
    }
    ~Output() { fclose(f); }
    FILE *f;
};

std::string read_id(const std::string &text, int size) {
    Output out(text);
    std::string buf(static_cast<size_t>(size), 'x');
    const int r = qp::net::string_id_read(out.f, buf.data(), size);
    return r == 0 ? std::string(buf.c_str()) : "<" + std::to_string(r) + ">";
}

// net_snmp_test, net_check_test and net_discovery_test read recorded and real
// tool output end to end; these cover the lines those cannot reach.
TEST(SnmpDeviceId, FirstQualifyingLineGivesTheValueIfItFits) {
    const std::string name = "SNMPv2-SMI::enterprises.2699.1.2.1.2.1.1.3.1 = ";
    // A 1,100-byte device ID: the first 1,023 bytes of the line are one
    // piece; its value is that piece less the prefix and its last byte.
    const std::string prefix = name + "STRING: \"", id = "MFG:ACME;MDL:Long;DES:" + std::string(1078, 'd');
    struct Row {
        std::string output, expected;
        int size = 1024;
    } rows[] = {
        {name + "STRING: \"MANUFACTURER:A B;MODEL:C;\"   \n", "MANUFACTURER:A B;MODEL:C;"},
        {name + "STRING: \"MFG:ACME;CMD:PCL;\"\n", "<-1>"},             // no model key
        {name + "STRING: \"mfg:acme;mdl:x1;\"\n", "<-1>"},              // keys are case-sensitive
        {"MFG:MDL: = STRING: \"hello\"\n", "hello"},                    // keys in the name count
        {name + "INTEGER: 1\n" + name + "STRING: \"MFG:A;MDL:1;\"\n" + name + "STRING: \"MFG:B;MDL:2;\"\n",
         "MFG:A;MDL:1;"},
        {"", "<1>"},
        {"MFG:MDL: = STRING: \"" + std::string(99, 'v') + "\"\n", std::string(99, 'v'), 100},
        {"MFG:MDL: = STRING: \"" + std::string(100, 'v') + "\"\n", "<-1>", 100},  // one more than fits
        {prefix + id + "\"\n", id.substr(0, 1023 - prefix.size() - 1)},
    };
    for (const Row &row : rows) {
        QLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(read_id(row.output, row.size), row.expected) << row.output;
        if (row.size < 1024) {
            EXPECT_EQ(QLIBCErrGet(), row.expected == "<-1>" ? ERR_VALUE_TOO_LONG : 0u) << row.output;
        }
    }
}

TEST(OneLineReaders, PingPartialLossIsOnline) {
    // The recorded outputs elsewhere have only 0% and 100%.
    EXPECT_TRUE(qp::net::ping_summary_online("2 packets transmitted, 1 received,  50% packet loss"));
}

TEST(BjnpListing, OnlyTheAskedAddressWithMakerAndModelFillsTheRecord) {
    const std::string line =
        "network bjnp://192.168.1.20:8611 \"ACME X1\" \"ACME X1 192.168.1.20\" \"MFG:ACME;CMD:BJL;MDL:X1;CLS:PRINTER;\"\n";
    struct Row {
        std::string output;
        const char *pattern;
        int result;
    } rows[] = {
        {"network bjnp://192.168.1.2:8611 \"B\" \"B\" \"MFG:B;MDL:B;\"\n" + line, "/192.168.1.20:8611", 0},
        {line, "/192.168.1.2:8611", 1},
        {"network bjnp://192.168.1.2:8611 \"a\" \"b\" \"MFG:a;CMD:b;\"\n", "/192.168.1.2:8611", -1},  // no model
    };
    for (const Row &row : rows) {
        PrinterNetInfo info = {};
        Output out(row.output);
        EXPECT_EQ(qp::net::bjnp_read(out.f, row.pattern, &info), row.result) << row.output;
        if (row.result == 0) {
            EXPECT_STREQ(info.szStringId, "MFG:ACME;CMD:BJL;MDL:X1;CLS:PRINTER");
        }
    }
}

TEST(AvahiBrowse, PortPriorityLastRecordPerPortAndTxtData) {
    const std::string rec = "=;eth0;IPv4;Office;_ipp._tcp;local;office.local;192.168.1.20;";
    Output out(rec + "631;\"usb_MFG=ACME\" \"usb_MDL=Old\"\n" +
               rec + "631;\"usb_MFG=ACME\" \"usb_MDL=X1\" \"usb_CMD=PCL\"\n" +
               rec + "515;\"usb_MDL=B;9100;x\"\n" +  // ';' in TXT
               rec + "80;\"usb_MDL=Web\"\n" + "+;eth0;IPv4;Office;_ipp._tcp;local\n");
    qp::net::AvahiSlots slots = {};
    PQLIBSZLIST list = QLIBCSzListAlloc(16);
    ASSERT_EQ(qp::net::avahi_read(out.f, ";192.168.1.20;", &list, &slots), 0);
    QLIBCSzListFree(list);
    EXPECT_STREQ(slots.txt[0], "");                       // 8611
    EXPECT_STREQ(slots.txt[1], "x\"");                    // 9100, from the TXT split by its ';'
    EXPECT_STREQ(slots.txt[2], "");                       // 515 never stood as a port
    EXPECT_STREQ(slots.txt[3], "\"usb_MFG=ACME\" \"usb_MDL=X1\" \"usb_CMD=PCL\"");

    // A device ID the caller holds stays; the model still comes from TXT.
    PrinterNetInfo info = {};
    strcpy(info.szStringId, "MFG:Mine;MDL:M;");
    ASSERT_EQ(qp::net::avahi_txt_read("\"usb_MDL=X1\"", &info), 0);
    EXPECT_STREQ(info.szStringId, "MFG:Mine;MDL:M;");
    EXPECT_STREQ(info.szModel, "X1");

    info = {};  // values as long as a line: the built ID is cut, never overrun
    const std::string txt = "\"usb_MFG=" + std::string(500, 'm') + "\" \"usb_MDL=" + std::string(500, 'd') + "\"";
    ASSERT_EQ(qp::net::avahi_txt_read(txt.c_str(), &info), 0);
    EXPECT_EQ(strlen(info.szStringId), 1023u);
    EXPECT_EQ(std::string(info.szStringId, 9), "MFG:mmmmm");
}

// ---- the network printer section of printer.conf -----------------------------

constexpr const char *kConf = "/usr/qora/etc/printer.conf";

PrinterNetConf net_conf(const char *ip, const char *queue, const char *backend = "", const char *qname = "") {
    PrinterNetConf c = {};
    strcpy(c.szIP, ip);
    strcpy(c.szCupsPrinterName, queue);
    strcpy(c.szBackend, backend);
    strcpy(c.szQName, qname);
    snprintf(c.szPrinterId, sizeof c.szPrinterId, "%s-%s", ip, queue);
    return c;
}

// The section's entries as "key=value;" in the file's order, "" if none.
std::string section(const char *name) {
    PQLIBSZHASH hash = QLIBCSzHashAlloc(64);
    PQLIBSZLIST keys = QLIBCSzListAlloc(64);
    QLIBCFileGetSection(kConf, name, &hash);
    QLIBCSzHashEnumKey(hash, &keys);
    std::string out;
    for (int i = 0; i < keys->nItem; ++i)
        out += std::string(keys->pszItem[i]) + "=" + QLIBCSzHashGetValue(hash, keys->pszItem[i]) + ";";
    QLIBCSzListFree(keys);
    QLIBCSzHashFree(hash);
    return out;
}

class NetConfSetup : public ::testing::Test {
protected:
    void SetUp() override { qpt::write_file(kConf, "[other]\n\tIP = 1.2.3.4\n"); }
};

TEST_F(NetConfSetup, MergesIntoTheSectionByTheBackendRules) {
    PrinterNetConf c = net_conf("10.0.0.2", "Office", "socket", "raw");
    strcpy(c.szBrand, "ACME");
    strcpy(c.szDriver, "drv");
    ASSERT_EQ(QORAPrinterNetConfSetup(&c, 0), 0);
    EXPECT_EQ(section("10.0.0.2-Office"),
              "IP=10.0.0.2;cups printer name=Office;Backend=socket;QName=raw;Brand=ACME;driver=drv;");
    ASSERT_GE(QLIBCFileSetSectionValue(kConf, "10.0.0.2-Office", "foreign", "kept"), 0);

    // Empty Brand keeps the stored one; socket with an empty QName clears it;
    // the driver stays unless forced; keys of others survive.
    c.szBrand[0] = c.szQName[0] = c.szDriver[0] = '\0';
    ASSERT_EQ(QORAPrinterNetConfSetup(&c, 0), 0);
    EXPECT_EQ(section("10.0.0.2-Office"),
              "IP=10.0.0.2;cups printer name=Office;Backend=socket;QName=;Brand=ACME;driver=drv;foreign=kept;");
    ASSERT_EQ(QORAPrinterNetConfSetup(&c, 1), 0);
    EXPECT_EQ(section("10.0.0.2-Office"), "IP=10.0.0.2;cups printer name=Office;Backend=socket;QName=;Brand=ACME;"
                                          "driver=;foreign=kept;driver brand=;");
    EXPECT_EQ(section("other"), "IP=1.2.3.4;");

    struct Row {
        const char *backend, *qname, *stored;
    } rows[] = {
        {"lpd", "", "QName=q0;"},      // lpd and ipp write only a given name
        {"ipp", "q1", "QName=q1;"},
        {"LPD", "q2", "QName=q0;"},    // exact comparison: not written
    };
    for (const Row &row : rows) {
        PrinterNetConf q = net_conf("10.0.0.3", "Q", "lpd", "q0");
        ASSERT_EQ(QORAPrinterNetConfSetup(&q, 0), 0);
        q = net_conf("10.0.0.3", "Q", row.backend, row.qname);
        ASSERT_EQ(QORAPrinterNetConfSetup(&q, 0), 0);
        EXPECT_NE(section("10.0.0.3-Q").find(row.stored), std::string::npos) << row.backend;
    }
}

TEST_F(NetConfSetup, LockHeldElsewhereWritesNothing) {
    const std::string before = qpt::read_file(kConf);
    qpt::mkdirs("/run/qorasdk/lock");
    const int fd = open("/run/qorasdk/lock/lock_printer", O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);  // another open file: the library's try fails
    PrinterNetConf c = net_conf("10.0.0.2", "Office");
    EXPECT_EQ(QORAPrinterNetConfSetup(&c, 0), -1);
    EXPECT_EQ(QLIBCErrGet(), ERR_LOCK_FAILED);
    close(fd);
    EXPECT_EQ(qpt::read_file(kConf), before);
}

// Arguments are checked first, with one message naming the source file and the failed check.
TEST(NetArguments, BadArgumentsAreRefusedWithOneMessage) {
    qpt::LogCapture log;
    char buf[16];
    struct Row {
        int result;
        const char *file, *check;
    } rows[] = {
        {QORAPrinterNetGetStringId(nullptr, buf, 16), "printer_net_get_string_id.cpp", "((void *)0) != szIP"},
        {QORAPrinterNetAvahiInfoGet("x", nullptr), "printer_net_avahi_info_get.cpp", "NULL != pNPInfo"},
    };
    const std::vector<qpt::LogLine> lines = log.lines();
    ASSERT_EQ(lines.size(), sizeof rows / sizeof rows[0]) << log.dump();
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(rows[i].result, -1) << rows[i].check;
        EXPECT_EQ(lines[i].severity, LOG_ERR);
        EXPECT_EQ(lines[i].text.rfind(std::string(rows[i].file) + ":", 0), 0u) << lines[i].text;
        EXPECT_NE(lines[i].text.find(std::string(" Invaild Argument (") + rows[i].check + ")=[0]"), std::string::npos)
            << lines[i].text;
    }
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
    EXPECT_STREQ(QLIBCErrorGetFile(), "printer_net_avahi_info_get.cpp");
}

}  // namespace
