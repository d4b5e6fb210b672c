// The qoraprinter command: exit status, what it prints on success and how it
// reports a failure (the error code, its name and the place from the slot).
#include <gtest/gtest.h>

#include "qp_test.hpp"

namespace {

qpt::RunResult cli(std::vector<std::string> args) {
    args.insert(args.begin(), qpt::bin_path("qoraprinter"));
    return qpt::run(args);
}

// Each row: arguments, exit status, the whole stdout and a piece of stderr.
TEST(Cli, UsageStringsAndFailures) {
    const struct { std::vector<std::string> args; int status; std::string out, err; } cases[] = {
        {{}, 1, "", "usage:"},
        {{"frobnicate"}, 1, "", "unknown command 'frobnicate'"},
        {{"attach", "lp0"}, 1, "", "usage: qoraprinter attach DEV BUSID"},
        {{"stringid", "model", "MFG:ACME;MDL:Laser 100;"}, 0, "Laser 100\n", ""},
        {{"stringid", "get", "CMD:", "MFG:ACME;"}, 1, "", ""},
        {{"stringid", "vendor", ""}, 1, "", "error 0x0D00 ERR_BAD_PARAMETER at printer_conf_string_id_parse.cpp:"},
        {{"device-id", "lp1"}, 1, "", ""},  // not attached
    };
    for (const auto &c : cases) {
        const auto r = cli(c.args);
        EXPECT_EQ(r.status, c.status) << c.args.size() << r.err;
        EXPECT_EQ(r.out, c.out);
        EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    }
    const auto help = cli({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char *cmd : {"attach", "queue add", "net identify", "cloud set", "usbip status"})
        EXPECT_NE(help.out.find(cmd), std::string::npos) << cmd;
}

// A section set and shown back; forcing stores the driver keys even when
// empty; a missing queue name is logged and fails the command.
TEST(Cli, PrinterSectionRoundTrip) {
    qpt::LogCapture log;
    const std::string id = "04a9:1827:CLI1";
    ASSERT_EQ(cli({"conf", "set", id, "producer=Acme", "product name=Laser 100", "driver=gutenprint"}).status, 0);
    EXPECT_EQ(cli({"conf", "show", id}).out,
              "[" + id + "]\n\tproducer = Acme\n\tproduct name = Laser 100\n\tdriver = gutenprint\n");
    ASSERT_EQ(cli({"conf", "set", id, "--force"}).status, 0);
    EXPECT_NE(qpt::read_file("/usr/qora/etc/printer.conf").find("\tdriver = \n"), std::string::npos);
    EXPECT_EQ(cli({"conf", "cups-name", id}).status, 1);
    EXPECT_EQ(log.count(3, "get cups printer name failed, printer=" + id), 1u) << log.dump();
}

TEST(Cli, AttachLimitAndList) {
    // A third USB printer is refused without failing the hot-plug rule.
    qpt::LogCapture log;
    auto lp2 = cli({"attach", "lp2", "1-9"});
    EXPECT_EQ(lp2.status, 0) << lp2.err;
    EXPECT_EQ(log.count(3, "Exceed the max number of printers supported."), 1u) << log.dump();
    EXPECT_FALSE(qpt::exists("/tmp/usbtab"));
    ASSERT_EQ(cli({"nptab", "add", "10.0.0.7", "office"}).status, 0);
    EXPECT_EQ(cli({"list", "--net"}).out, "10.0.0.7-office\n");
    ASSERT_EQ(cli({"nptab", "rm", "10.0.0.7", "office"}).status, 0);
    EXPECT_EQ(cli({"list", "--net"}).out, "");
}

}  // namespace
