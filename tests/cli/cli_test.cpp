// The qoraprinter command: exit status, what it prints on success and how it
// reports a failure (the error code, its name and the place from the slot).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qp_test.hpp"

namespace {

qpt::RunResult cli(std::vector<std::string> args) {
    args.insert(args.begin(), qpt::bin_path("qoraprinter"));
    return qpt::run(args);
}

TEST(Cli, HelpUsageAndUnknownCommands) {
    auto help = cli({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char *cmd : {"attach", "queue add", "net identify", "stringid vendor", "cloud set", "usbip status"})
        EXPECT_NE(help.out.find(cmd), std::string::npos) << cmd;

    auto none = cli({});
    EXPECT_EQ(none.status, 1);
    EXPECT_NE(none.err.find("usage:"), std::string::npos);

    auto unknown = cli({"frobnicate"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_NE(unknown.err.find("unknown command 'frobnicate'"), std::string::npos);

    // Wrong arguments print the command's own usage.
    auto missing = cli({"attach", "lp0"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("usage: qoraprinter attach DEV BUSID"), std::string::npos) << missing.err;
}

TEST(Cli, DeviceIdStrings) {
    auto model = cli({"stringid", "model", "MFG:ACME;MDL:Laser 100;"});
    EXPECT_EQ(model.status, 0);
    EXPECT_EQ(model.out, "Laser 100\n");

    auto absent = cli({"stringid", "get", "CMD:", "MFG:ACME;"});
    EXPECT_EQ(absent.status, 1);
    EXPECT_EQ(absent.out, "");

    // An empty string is a bad argument: code, name and the parse's place.
    auto bad = cli({"stringid", "vendor", ""});
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.err.find("error 0x0D00 ERR_BAD_PARAMETER at printer_conf_string_id_parse.cpp:"), std::string::npos)
        << bad.err;
}

TEST(Cli, PrinterSectionRoundTripAndFailures) {
    qpt::LogCapture log;
    const std::string id = "04a9:1827:CLI1";
    auto set = cli({"conf", "set", id, "producer=Acme", "product name=Laser 100", "driver=gutenprint"});
    ASSERT_EQ(set.status, 0) << set.err;
    auto show = cli({"conf", "show", id});
    EXPECT_EQ(show.status, 0);
    EXPECT_EQ(show.out, "[" + id + "]\n\tproducer = Acme\n\tproduct name = Laser 100\n\tdriver = gutenprint\n");

    // Forcing stores the driver keys even when empty; other keys stay.
    ASSERT_EQ(cli({"conf", "set", id, "--force"}).status, 0);
    EXPECT_NE(qpt::read_file("/usr/qora/etc/printer.conf").find("\tdriver = \n"), std::string::npos);

    // No queue name stored yet: the library's message is logged, the
    // command fails.
    auto name = cli({"conf", "cups-name", id});
    EXPECT_EQ(name.status, 1);
    EXPECT_EQ(log.count(3, "get cups printer name failed, printer=" + id), 1u) << log.dump();

    // A printer that is not attached: the USB table has no such device.
    auto devid = cli({"device-id", "lp1"});
    EXPECT_EQ(devid.status, 1);
}

TEST(Cli, AttachLimitAndList) {
    // A third USB printer is refused without failing the hot-plug rule.
    qpt::LogCapture log;
    auto lp2 = cli({"attach", "lp2", "1-9"});
    EXPECT_EQ(lp2.status, 0) << lp2.err;
    EXPECT_EQ(log.count(3, "Exceed the max number of printers supported."), 1u) << log.dump();
    EXPECT_FALSE(qpt::exists("/tmp/usbtab"));

    ASSERT_EQ(cli({"nptab", "add", "10.0.0.7", "office"}).status, 0);
    auto list = cli({"list", "--net"});
    EXPECT_EQ(list.status, 0);
    EXPECT_EQ(list.out, "10.0.0.7-office\n");
    ASSERT_EQ(cli({"nptab", "rm", "10.0.0.7", "office"}).status, 0);
    EXPECT_EQ(cli({"list", "--net"}).out, "");
}

}  // namespace
