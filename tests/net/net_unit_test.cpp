// Readers of the network tools' output fed with recorded output, and the
// network printer section of printer.conf.
#include <gtest/gtest.h>
#include <string.h>
#include <syslog.h>

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

// The device ID read from the walk, or "<RESULT>" ("<RESULT too long>" with
// that error set).
std::string read_id(const std::string &text, int size) {
    Output out(text);
    std::string buf(static_cast<size_t>(size), 'x');
    QLIBCErrSetEx(0, "", 0);
    const int r = qp::net::string_id_read(out.f, buf.data(), size);
    if (r == 0) return buf.c_str();
    return "<" + std::to_string(r) + (QLIBCErrGet() == ERR_VALUE_TOO_LONG ? " too long>" : ">");
}

// net_snmp_test, net_check_test and net_discovery_test read recorded and real
// tool output end to end; these cover the lines those cannot reach.
TEST(SnmpDeviceId, FirstQualifyingLineGivesTheValueIfItFits) {
    const std::string name = "SNMPv2-SMI::enterprises.2699.1.2.1.2.1.1.3.1 = ";
    struct Row {
        std::string output, expected;
        int size = 1024;
    } rows[] = {
        {name + "STRING: \"MANUFACTURER:A B;MODEL:C;\"   \n", "MANUFACTURER:A B;MODEL:C;"},
        {name + "STRING: \"MFG:ACME;CMD:PCL;\"\n", "<-1>"},             // no model key
        {name + "INTEGER: 1\n" + name + "STRING: \"MFG:A;MDL:1;\"\n" + name + "STRING: \"MFG:B;MDL:2;\"\n",
         "MFG:A;MDL:1;"},
        {"", "<1>"},
        {"MFG:MDL: = STRING: \"" + std::string(99, 'v') + "\"\n", std::string(99, 'v'), 100},
        {"MFG:MDL: = STRING: \"" + std::string(100, 'v') + "\"\n", "<-1 too long>", 100},  // one more than fits
    };
    for (const Row &row : rows) EXPECT_EQ(read_id(row.output, row.size), row.expected) << row.output;
}

TEST(PingSummary, OnlineUnlessAllPacketsWereLost) {
    struct Row {
        const char *output, *status;
        int size = 16;
    } rows[] = {
        {"ping: connect: Network is unreachable\n", "Offline"},
        {"2 packets transmitted, 1 received,  50% packet loss\n", "Online"},
        {"1 packets transmitted, 1 received, 0% packet loss\n", "Onl", 4},  // cut to the buffer
        {"2 packets transmitted, 0 received, +2 errors, 100% packet loss, time 1001ms\n", "Offline"},
        {"weird packet loss\n1 packets transmitted, 1 received, 0% packet loss\n", "Offline"},  // first one decides
    };
    for (const Row &row : rows) {
        Output out(row.output);
        char status[16] = "untouched";
        EXPECT_EQ(qp::net::ping_read(out.f, status, row.size), 0) << row.output;
        EXPECT_STREQ(status, row.status) << row.output;
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

// The section's entries as "key=value;" in the file's order, "" if none.
std::string section(const char *name) {
    PQLIBSZHASH hash = QLIBCSzHashAlloc(64);
    PQLIBSZLIST keys = QLIBCSzListAlloc(64);
    QLIBCFileGetSection("/usr/qora/etc/printer.conf", name, &hash);
    QLIBCSzHashEnumKey(hash, &keys);
    std::string out;
    for (int i = 0; i < keys->nItem; ++i)
        out += std::string(keys->pszItem[i]) + "=" + QLIBCSzHashGetValue(hash, keys->pszItem[i]) + ";";
    QLIBCSzListFree(keys);
    QLIBCSzHashFree(hash);
    return out;
}

// Each row writes the record with these fields over what the rows before
// left, and the section then reads as given.
TEST(NetConfSetup, MergesIntoTheSectionByTheBackendRules) {
    // Keys of others survive, in their section and in the record's.
    qpt::write_file("/usr/qora/etc/printer.conf", "[other]\n\tIP = 1.2.3.4\n[10.0.0.2-Q]\n\tforeign = kept\n");
    struct Row {
        const char *ip, *backend, *qname, *brand, *driver;
        int force;
        const char *section;
    } rows[] = {
        {"10.0.0.2", "socket", "raw", "ACME", "drv", 0,
         "foreign=kept;IP=10.0.0.2;cups printer name=Q;Backend=socket;QName=raw;Brand=ACME;driver=drv;"},
        // Empty Brand keeps the stored one; socket with an empty QName
        // clears it; the driver stays unless forced.
        {"10.0.0.2", "socket", "", "", "", 0,
         "foreign=kept;IP=10.0.0.2;cups printer name=Q;Backend=socket;QName=;Brand=ACME;driver=drv;"},
        {"10.0.0.2", "socket", "", "", "", 1,
         "foreign=kept;IP=10.0.0.2;cups printer name=Q;Backend=socket;QName=;Brand=ACME;driver=;driver brand=;"},
        // lpd (as ipp) writes only a given name; the backend compares exactly.
        {"10.0.0.3", "lpd", "q0", "", "", 0, "IP=10.0.0.3;cups printer name=Q;Backend=lpd;QName=q0;"},
        {"10.0.0.3", "lpd", "", "", "", 0, "IP=10.0.0.3;cups printer name=Q;Backend=lpd;QName=q0;"},
        {"10.0.0.3", "LPD", "q2", "", "", 0, "IP=10.0.0.3;cups printer name=Q;Backend=LPD;QName=q0;"},
    };
    for (const Row &row : rows) {
        PrinterNetConf c = {};
        strcpy(c.szIP, row.ip);
        strcpy(c.szCupsPrinterName, "Q");
        strcpy(c.szBackend, row.backend);
        strcpy(c.szQName, row.qname);
        strcpy(c.szBrand, row.brand);
        strcpy(c.szDriver, row.driver);
        snprintf(c.szPrinterId, sizeof c.szPrinterId, "%s-Q", row.ip);
        ASSERT_EQ(QORAPrinterNetConfSetup(&c, row.force), 0);
        EXPECT_EQ(section(c.szPrinterId), row.section) << row.backend << " " << row.qname;
    }
    EXPECT_EQ(section("other"), "IP=1.2.3.4;");
}

// Arguments are checked first, with one message at error priority naming the failed check.
TEST(NetArguments, BadArgumentsAreRefusedWithOneMessage) {
    qpt::LogCapture log;
    char buf[16];
    EXPECT_EQ(QORAPrinterNetGetStringId(nullptr, buf, 16), -1);
    EXPECT_EQ(QORAPrinterNetPingStatus(nullptr, buf, 16), -1);
    EXPECT_EQ(QORAPrinterNetAvahiInfoGet("x", nullptr), -1);
    EXPECT_EQ(QLIBCErrGet(), ERR_BAD_PARAMETER);
    EXPECT_STREQ(QLIBCErrorGetFile(), "printer_net_avahi_info_get.cpp");
    EXPECT_EQ(log.lines().size(), 3u) << log.dump();
    EXPECT_EQ(log.count(LOG_ERR, " Invaild Argument (((void *)0) != szIP)=[0]"), 2u) << log.dump();
}

}  // namespace
