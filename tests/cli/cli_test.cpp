// The qoraprinter command's contract: exit status by class, error sentences with the library's log line and a
// failed tool's stderr line, JSON documents and secrets, against a real scheduler.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cupsd_fixture.hpp"
#include "qp_test.hpp"

namespace {

qpt::RunResult cli(std::vector<std::string> args, std::string_view in = {}) {
    args.insert(args.begin(), qpt::bin_path("qoraprinter"));
    return qpt::run(args, in);
}

TEST(Cli, Contract) {
    qpcups::Cupsd cupsd;
    ASSERT_TRUE(cupsd.start());
    qpt::write_file("/usr/qora/etc/printer.conf",
                    "[P0]\n\tcups printer name = gone\n\tproducer = A\"c\\me\xff\n[P1]\n");
    qpt::write_file("/tmp/page.txt", "page\n");
    qpt::write_file("/tmp/token", "tok\r\nsecond line\n");
    ASSERT_EQ(cli({"queue", "add", "P1"}).out, "usbprinter1\n");
    ASSERT_EQ(cli({"print", "P1", "/tmp/page.txt"}).status, 0);  // stays queued: the new queue is stopped
    const std::string jobs = qpt::run({"/usr/bin/lpstat", "-o", "usbprinter1"}).out;
    const std::string job = jobs.substr(12, jobs.find(' ') - 12);
    // Arguments, exit status, a piece of stdout (--json: the whole document) and a piece of stderr.
    const struct { std::vector<std::string> args; int status; std::string out, err; } cases[] = {
        {{}, 2, "", "usage: qoraprinter [-v]"},
        {{"attach", "lp7"}, 1, "", "attach: no USB bus ID for lp7 in /sys/class/usbmisc."},
        {{"cloud", "set", "me", "--password", "pw"}, 2, "", "--password would show the secret to every"},
        {{"conf", "show", "P0", "--json"}, 0,
         R"({"printer":"P0","keys":{"cups printer name":"gone","producer":"A\"c\\me\ufffd"}})" "\n", ""},
        {{"--json", "queue", "check", "P1", "usbprinter1"}, 0,
         R"({"printer":"P1","queue":"usbprinter1","answer":"this-printer"})" "\n", ""},
        {{"job", "wait", "P1", "999", "--json"}, 0,
         R"({"printer":"P1","job":"999","complete":true,"seconds":0})" "\n", ""},
        {{"cloud", "set", "me", "--token-file", "/tmp/token"}, 0, "", ""},
        {{"cloud", "show", "--reveal", "--json"}, 0,
         R"({"account":"me","secret":"refresh token","value":"tok"})" "\n", ""},
        {{"stringid", "get", "CMD:", "MFG:A;", "--json"}, 3,
         "{\"key\":\"CMD:\",\"value\":null}\n", "the string has no CMD:"},
        {{"net", "check", "10.0.0.7", "usbprinter1", "--json"}, 3,
         R"({"address":"10.0.0.7","queue":"usbprinter1","answer":"no-queue"})" "\n", ""},
        {{"queue", "check", "P0", "usbprinter1"}, 4, "the queue serves another device\n", ""},
        {{"job", "wait", "P1", job, "--timeout", "1"}, 5, " is still queued after 1 s\n", ""},
        {{"-v", "stringid", "vendor", ""}, 1, "", "qoraprinter: log err: printer_conf_string_id_parse.cpp:"},
        {{"stringid", "vendor", ""}, 1, "",
         "stringid vendor failed: ERR_BAD_PARAMETER (0x0D00).\n  The library logged: printer_conf_string_id_parse"},
        {{"print", "P0", "/tmp/page.txt"}, 1, "",
         " execv error, cmd=/usr/bin/lpr, ret=1\n  /usr/bin/lpr exited with status 1: /usr/bin/lpr: Error - The "
         "printer or class does not exist."},
    };
    for (const auto &c : cases) {
        const auto r = cli(c.args);
        EXPECT_EQ(r.status, c.status) << testing::PrintToString(c.args) << r.err;
        EXPECT_NE(r.out.find(c.out), std::string::npos) << r.out;
        EXPECT_TRUE(r.err.find(c.err) != std::string::npos && (!c.out.starts_with("{") || r.out == c.out)) << r.err;
    }
    // The hot-plug attach of a device name alone takes the bus ID from the node's sysfs link.
    ASSERT_EQ(mount("qp", "/sys/class", "tmpfs", 0, nullptr), 0);
    ASSERT_EQ(mkdir("/sys/class/usbmisc", 0755), 0);
    ASSERT_EQ(symlink("../../devices/pci0000:00/usb1/1-1.2/1-1.2:1.0/usbmisc/lp0", "/sys/class/usbmisc/lp0"), 0);
    cli({"attach", "lp0"});
    umount("/sys/class");
    EXPECT_NE(qpt::read_file("/tmp/usbtab").find("1-1.2"), std::string::npos) << qpt::read_file("/tmp/usbtab");
    // Secrets from standard input.
    EXPECT_EQ(cli({"cloud", "set", "me", "--password-file", "-"}, "s3cret\n").status, 0);
    EXPECT_EQ(cli({"cloud", "show", "--reveal"}).out, "account: me\nsecret: password\npassword: s3cret\n");
}

}  // namespace
