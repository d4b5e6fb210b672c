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

std::string read_id(const std::string &text, int size = 1024, int *result = nullptr) {
    Output out(text);
    std::string buf(static_cast<size_t>(size), 'x');
    const int r = qp::net::string_id_read(out.f, buf.data(), size);
    if (result) *result = r;
    return r == 0 ? std::string(buf.c_str()) : "<" + std::to_string(r) + ">";
}

TEST(SnmpDeviceId, FirstQualifyingLineGivesTheValue) {
    const std::string name = "SNMPv2-SMI::enterprises.2699.1.2.1.2.1.1.3.1 = ";
    struct Row {
        std::string output, expected;
    } rows[] = {
        {name + "STRING: \"MFG:ACME;MDL:X1;\"\n", "MFG:ACME;MDL:X1;"},
        {name + "STRING: \"MANUFACTURER:A B;MODEL:C;\"   \n", "MANUFACTURER:A B;MODEL:C;"},
        {name + "STRING: \"MFG:ACME;CMD:PCL;\"\n", "<-1>"},             // no model key
        {name + "STRING: \"mfg:acme;mdl:x1;\"\n", "<-1>"},              // keys are case-sensitive
        {name + "Hex-STRING: 4D 46 47 3A MFG:MDL:\n", "<-1>"},          // no quoted string
        {"MFG:MDL: = STRING: \"hello\"\n", "hello"},                    // keys in the name count
        {"MFG:MDL: = STRING: \"\n", "<-1>"},                            // nothing after the marker
        {name + "STRING: \"say \\\"MFG:Q;MDL:Q\\\"\"\n", "say \\\"MFG:Q;MDL:Q\\\""},
        {name + "INTEGER: 1\n" + name + "STRING: \"MFG:A;MDL:1;\"\n" + name + "STRING: \"MFG:B;MDL:2;\"\n",
         "MFG:A;MDL:1;"},
        {"", "<1>"},
        {"\n", "<-1>"},  // an empty line is output all the same
    };
    for (const Row &row : rows) EXPECT_EQ(read_id(row.output), row.expected) << row.output;
}

TEST(SnmpDeviceId, ValueMustBeShorterThanTheBuffer) {
    const std::string v99(99, 'v'), v100(100, 'v');
    const std::string line = "MFG:MDL: = STRING: \"";
    EXPECT_EQ(read_id(line + v99 + "\"\n", 100), v99);
    QLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(read_id(line + v100 + "\"\n", 100), "<-1>");
    EXPECT_EQ(QLIBCErrGet(), ERR_VALUE_TOO_LONG);
}

TEST(SnmpDeviceId, LongLinesArriveInPiecesAndNeverOverrun) {
    // A 1,100-byte device ID: the first 1,023 bytes of the line are one
    // piece; its value is that piece less the prefix and its last byte.
    const std::string prefix = "SNMPv2-SMI::enterprises.2699.1.2.1.2.1.1.3.1 = STRING: \"";
    std::string id = "MFG:ACME;MDL:Long;DES:";
    id += std::string(1100 - id.size(), 'd');
    const std::string got = read_id(prefix + id + "\"\n");
    EXPECT_EQ(got, id.substr(0, 1023 - prefix.size() - 1));
    // The same value does not fit a small buffer.
    EXPECT_EQ(read_id(prefix + id + "\"\n", 200), "<-1>");
}

TEST(SnmpDeviceUri, LinesAreClassifiedByTheirFirstQuote) {
    using qp::net::UriLine;
    struct Row {
        const char *line;
        UriLine kind;
        const char *candidate;
    } rows[] = {
        {"X = STRING: \"ipp://10.0.0.2/ipp/print\"", UriLine::kSelect, "ipp://10.0.0.2/ipp/print\""},
        {"X = STRING: \"LPR://h/q\"", UriLine::kSelect, "LPR://h/q\""},
        {"X = STRING: \"ipps://h/q\"", UriLine::kSelect, "ipps://h/q\""},  // refused later, by its scheme
        {"X = STRING: \"smb://h/q\"", UriLine::kSkip, ""},
        {"X = STRING: \"no uri\"", UriLine::kSkip, ""},
        {"X = STRING: socket://h:9100", UriLine::kStop, ""},  // no quote
        {"X://Y = \"", UriLine::kStop, ""},                    // candidate too short
    };
    for (const Row &row : rows) {
        std::string_view candidate;
        EXPECT_EQ(qp::net::uri_line(row.line, &candidate), row.kind) << row.line;
        if (row.kind == UriLine::kSelect) {
            EXPECT_EQ(candidate, row.candidate);
        }
    }
}

TEST(LpstatLine, QueueWordFollowsTheSecondBlank) {
    std::string_view word;
    ASSERT_TRUE(qp::net::lpstat_queue_word("device for Office_Laser: ipp://10.0.0.2/q", &word));
    EXPECT_EQ(word, "Office_Laser");
    ASSERT_TRUE(qp::net::lpstat_queue_word("device for NoColon", &word));
    EXPECT_EQ(word, "NoColon");
    EXPECT_FALSE(qp::net::lpstat_queue_word("device Office:", &word));
}

TEST(PingSummary, LossFigureDecides) {
    EXPECT_TRUE(qp::net::ping_summary_online("1 packets transmitted, 1 received, 0% packet loss, time 0ms"));
    EXPECT_FALSE(qp::net::ping_summary_online("1 packets transmitted, 0 received, 100% packet loss, time 1000ms"));
    EXPECT_TRUE(qp::net::ping_summary_online("2 packets transmitted, 1 received,  50% packet loss"));
    EXPECT_FALSE(qp::net::ping_summary_online("100% packet loss, nothing else"));
    EXPECT_FALSE(qp::net::ping_summary_online("1 packets transmitted, 0 received, +1 errors, 100% packet loss"));

    char status[4] = "xyz";
    Output summary("PING x\n1 packets transmitted, 1 received, 0% packet loss, time 0ms\n");
    EXPECT_EQ(qp::net::ping_read(summary.f, status, sizeof status), 0);
    EXPECT_STREQ(status, "Onl");
    Output silent("ping: connect: Network is unreachable\n");
    EXPECT_EQ(qp::net::ping_read(silent.f, status, sizeof status), 0);
    EXPECT_STREQ(status, "Off");
}

PrinterNetInfo blank_info() {
    PrinterNetInfo info;
    memset(&info, 0, sizeof info);
    strcpy(info.szQName, "keep");
    return info;
}

TEST(BjnpListing, AddressLineFillsTheRecord) {
    const std::string line =
        "network bjnp://192.168.1.20:8611 \"ACME X1\" \"ACME X1 192.168.1.20\" \"MFG:ACME;CMD:BJL;MDL:X1;CLS:PRINTER;\"\n";
    PrinterNetInfo info = blank_info();
    {
        Output out("network bjnp://192.168.1.2:8611 \"B\" \"B\" \"MFG:B;MDL:B;\"\n" + line);
        EXPECT_EQ(qp::net::bjnp_read(out.f, "/192.168.1.20:8611", &info), 0);
    }
    EXPECT_STREQ(info.szStringId, "MFG:ACME;CMD:BJL;MDL:X1;CLS:PRINTER");
    EXPECT_STREQ(info.szVendor, "ACME");
    EXPECT_STREQ(info.szModel, "X1");
    EXPECT_STREQ(info.szBackend, "bjnp");
    EXPECT_STREQ(info.szQName, "keep");

    struct Row {
        std::string output;
        int result;
    } rows[] = {
        {line, 1},                                                          // asked for 192.168.1.2
        {"network bjnp \"Unknown\" \"x\"\n" + line, 1},                     // "Unknown" ends the search
        {"network bjnp \"Unidentified printer\" \"x\"\n" + line, -1},
        {"network bjnp://192.168.1.2:8611 \"a\" \"b\" \"mfg:a;mdl:b;\"\n", -1},  // lower-case key
        {"network bjnp://192.168.1.2:8611 \"a\" \"b\" \"MFG:a;CMD:b;\"\n", -1},  // no model
    };
    for (const Row &row : rows) {
        PrinterNetInfo other = blank_info();
        Output out(row.output);
        EXPECT_EQ(qp::net::bjnp_read(out.f, "/192.168.1.2:8611", &other), row.result) << row.output;
    }
}

TEST(AvahiBrowse, PortPriorityAndLastRecordPerPort) {
    const std::string rec = "=;eth0;IPv4;Office;_ipp._tcp;local;office.local;";
    const std::string output = rec + "192.168.1.20;631;\"usb_MFG=ACME\" \"usb_MDL=Old\"\n" +
                               rec + "192.168.1.20;631;\"usb_MFG=ACME\" \"usb_MDL=X1\" \"usb_CMD=PCL\"\n" +
                               rec + "192.168.1.200;9100;\"usb_MDL=Wrong\"\n" +             // another address
                               rec + "192.168.1.20;515;\"usb_MDL=B;9100;x\"\n" +             // ';' in TXT
                               rec + "192.168.1.20;80;\"usb_MDL=Web\"\n" +
                               "+;eth0;IPv4;Office;_ipp._tcp;local\n" + rec + "192.168.1.20;" +
                               std::string(2000, 'z') + "\n";
    Output out(output);
    qp::net::AvahiSlots slots = {};
    PQLIBSZLIST list = QLIBCSzListAlloc(16);
    ASSERT_EQ(qp::net::avahi_read(out.f, ";192.168.1.20;", &list, &slots), 0);
    QLIBCSzListFree(list);
    EXPECT_STREQ(slots.txt[0], "");                       // 8611
    EXPECT_STREQ(slots.txt[1], "x\"");                    // 9100, from the TXT split by its ';'
    EXPECT_STREQ(slots.txt[2], "");                       // 515 never stood as a port
    EXPECT_STREQ(slots.txt[3], "\"usb_MFG=ACME\" \"usb_MDL=X1\" \"usb_CMD=PCL\"");
}

TEST(AvahiBrowse, TxtDataBuildsTheDeviceId) {
    qpt::LogCapture log;
    PrinterNetInfo info = blank_info();
    ASSERT_EQ(qp::net::avahi_txt_read("\"usb_CMD=PCL\" \"usb_MDL=X1\" \"usb_MFG=ACME\"", &info), 0);
    EXPECT_STREQ(info.szVendor, "ACME");
    EXPECT_STREQ(info.szModel, "X1");
    EXPECT_STREQ(info.szStringId, "MFG:ACME;CMD:PCL;MDL:X1;CLS:PRINTER;DES:ACME X1;");

    info = blank_info();
    ASSERT_EQ(qp::net::avahi_txt_read("\"usb_CMD=PS\" \"usb_MFG=Half\"", &info), 0);
    EXPECT_STREQ(info.szVendor, "Not Found");
    EXPECT_STREQ(info.szModel, "Not Found");
    EXPECT_STREQ(info.szStringId, "MFG:Not Found;CMD:PS;MDL:Not Found;CLS:PRINTER;DES:Not Found Not Found;");
    EXPECT_EQ(log.count(LOG_ERR, "Failed to make printer string ID. Info: \"usb_CMD=PS\" \"usb_MFG=Half\""), 1u);

    // A device ID the caller holds stays; maker and model still come from TXT.
    info = blank_info();
    strcpy(info.szStringId, "MFG:Mine;MDL:M;");
    ASSERT_EQ(qp::net::avahi_txt_read("\"usb_MDL=X1\"", &info), 0);
    EXPECT_STREQ(info.szStringId, "MFG:Mine;MDL:M;");
    EXPECT_STREQ(info.szModel, "X1");

    // Values as long as a line: the built ID is cut, never overrun.
    info = blank_info();
    const std::string txt = "\"usb_MFG=" + std::string(500, 'm') + "\" \"usb_MDL=" + std::string(500, 'd') + "\"";
    ASSERT_EQ(qp::net::avahi_txt_read(txt.c_str(), &info), 0);
    EXPECT_EQ(strlen(info.szStringId), 1023u);
    EXPECT_EQ(std::string(info.szStringId, 9), "MFG:mmmmm");
}

// ---- the network printer section of printer.conf -----------------------------

constexpr const char *kConf = "/usr/qora/etc/printer.conf";

PrinterNetConf net_conf(const char *ip, const char *queue) {
    PrinterNetConf c;
    memset(&c, 0, sizeof c);
    strcpy(c.szIP, ip);
    strcpy(c.szCupsPrinterName, queue);
    snprintf(c.szPrinterId, sizeof c.szPrinterId, "%s-%s", ip, queue);
    return c;
}

// The section's entries as "key=value;" in the file's order, "" if none.
std::string section(const char *name) {
    PQLIBSZHASH hash = QLIBCSzHashAlloc(64);
    std::string out;
    if (QLIBCFileGetSection(kConf, name, &hash) > 0) {
        PQLIBSZLIST keys = QLIBCSzListAlloc(64);
        QLIBCSzHashEnumKey(hash, &keys);
        for (int i = 0; i < keys->nItem; ++i) {
            out += std::string(keys->pszItem[i]) + "=" + QLIBCSzHashGetValue(hash, keys->pszItem[i]) + ";";
        }
        QLIBCSzListFree(keys);
    }
    QLIBCSzHashFree(hash);
    return out;
}

class NetConfSetup : public ::testing::Test {
protected:
    void SetUp() override {
        qpt::write_file(kConf, "[other]\n\tIP = 1.2.3.4\n");
    }
};

TEST_F(NetConfSetup, MergesIntoTheSectionByTheBackendRules) {
    PrinterNetConf c = net_conf("10.0.0.2", "Office");
    strcpy(c.szBackend, "socket");
    strcpy(c.szQName, "raw");
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
    EXPECT_NE(section("10.0.0.2-Office").find(";driver=;"), std::string::npos) << section("10.0.0.2-Office");
    EXPECT_NE(section("10.0.0.2-Office").find(";driver brand=;"), std::string::npos);
    EXPECT_EQ(section("other"), "IP=1.2.3.4;");

    struct Row {
        const char *backend, *qname, *stored;
    } rows[] = {
        {"lpd", "", "QName=q0;"},      // lpd and ipp write only a given name
        {"ipp", "q1", "QName=q1;"},
        {"bjnp", "", "QName=;"},
        {"LPD", "q2", "QName=q0;"},    // exact comparison: not written
        {"ipps", "q3", "QName=q0;"},
    };
    for (const Row &row : rows) {
        PrinterNetConf q = net_conf("10.0.0.3", "Q");
        strcpy(q.szBackend, "lpd");
        strcpy(q.szQName, "q0");
        ASSERT_EQ(QORAPrinterNetConfSetup(&q, 0), 0);
        strcpy(q.szBackend, row.backend);
        strcpy(q.szQName, row.qname);
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

// Every entry point checks its pointers first, with one message naming its
// own source file and the failed check.
TEST(NetArguments, BadArgumentsAreRefusedWithOneMessage) {
    qpt::LogCapture log;
    char buf[16];
    struct Row {
        int result;
        const char *file, *check;
    } rows[] = {
        {QORAPrinterNetGetStringId(nullptr, buf, 16), "printer_net_get_string_id.cpp", "((void *)0) != szIP"},
        {QORAPrinterNetGetStringId("x", buf, 0), "printer_net_get_string_id.cpp", "0 < iOutSize"},
        {QORAPrinterNetGetStringBackend("x", buf, 16, nullptr, 16), "printer_net_get_string_backend.cpp",
         "NULL != szQName"},
        {QORAPrinterNetInfoGetByIP("x", nullptr), "printer_net_info_get_by_ip.cpp", "NULL != pNPInfo"},
        {QORAPrinterNetConfSetup(nullptr, 0), "printer_net_conf_setup.cpp", "((void *)0) != pNPConf"},
        {QORAPrinterNetIPCheck(nullptr), "printer_net_ip_check.cpp", "((void *)0) != szIP"},
        {QORAPrinterNetCupsNameAndIPCheck("", nullptr), "printer_net_cups_name_and_ip_check.cpp", "0 != szIP[0]"},
        {QORAPrinterNetCupsNameAndIPCheck("x", ""), "printer_net_cups_name_and_ip_check.cpp",
         "0 != szCupsPrinterName[0]"},
        {QORAPrinterNetPingStatus("x", buf, -1), "printer_net_ping_status.cpp", "0 < cbStatus"},
        {QORAPrinterNetBjnpInfoGet(nullptr, nullptr), "printer_net_bjnp_info_get.cpp", "((void *)0) != szIP"},
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
