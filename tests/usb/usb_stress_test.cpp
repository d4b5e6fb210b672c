// Eight processes attach and detach lp0 and lp1 at once: the tables stay
// well-formed and end consistent.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <regex>
#include <sstream>
#include <string>

#include "qoraprinter.h"
#include "qp_test.hpp"
#include "usb_rig.hpp"

namespace {

constexpr int kProcesses = 8;
constexpr int kCycles = 50;  // per process: 400 attach/detach cycles in all

// Section name -> its lines, for a section file; fails on a line that is
// neither a header, an entry nor blank.
std::map<std::string, std::vector<std::string>> parse_sections(const std::string &text) {
    std::map<std::string, std::vector<std::string>> out;
    std::istringstream in(text);
    std::string current;
    static const std::regex entry("^\t[^=\n]+ = [^\n]*$");
    for (std::string line; std::getline(in, line);) {
        if (line.empty()) continue;
        if (line.front() == '[' && line.back() == ']') {
            current = line.substr(1, line.size() - 2);
            EXPECT_EQ(0u, out.count(current)) << "duplicate section " << current;
            out[current];
            continue;
        }
        EXPECT_TRUE(std::regex_match(line, entry)) << "bad line: " << line;
        EXPECT_FALSE(current.empty()) << "entry outside a section: " << line;
        out[current].push_back(line);
    }
    return out;
}

TEST(UsbStress, ConcurrentAttachDetachKeepsFilesWellFormed) {
    usbrig::setup();
    usbrig::add_device({.busid = "1-1"});
    usbrig::add_device({.busid = "1-2", .vendor = "03f0", .product = "002a", .serial = "XZ9"});
    int fds = qpt::open_fd_count();

    pid_t pids[kProcesses];
    for (int p = 0; p < kProcesses; ++p) {
        pids[p] = fork();
        if (pids[p] != 0) continue;
        int failures = 0;
        for (int c = 0; c < kCycles; ++c) {
            const char *dev = (c + p) % 2 ? "lp1" : "lp0";
            const char *bus = (c + p) % 2 ? "1-2" : "1-1";
            failures += QORAPrinterEnableExt(1, dev, bus) != 0;
            // Readers take no lock; a listing may lose a race with a writer
            // and fail, which is allowed, but must never crash.
            if (c % 3 == 0) (void)QORAPrinterEnumCount(1, nullptr);
            failures += (c % 4 == 0 ? QORAPrinterEnableExt(0, nullptr, bus) : QORAPrinterEnableExt(0, dev, nullptr)) != 0;
        }
        // Every process ends with both printers detached.
        failures += QORAPrinterEnableExt(0, "lp0", nullptr) != 0;
        failures += QORAPrinterEnableExt(0, "lp1", nullptr) != 0;
        _exit(failures > 255 ? 255 : failures);
    }
    for (pid_t pid : pids) {
        int status = 0;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "failed calls: " << WEXITSTATUS(status);
    }

    // The last operation on each device was a detach.
    EXPECT_EQ("", qpt::read_file("/tmp/usbtab"));
    auto conf = parse_sections(qpt::read_file("/usr/qora/etc/printer.conf"));
    ASSERT_EQ(2u, conf.size());
    for (const char *id : {"04a9:1827:A1B2C3", "03f0:002a:XZ9"}) {
        ASSERT_EQ(1u, conf.count(id)) << id;
        EXPECT_EQ(4u, conf[id].size()) << id;  // producer, product name, mode, usblp string id
    }
    auto smb = parse_sections(qpt::read_file("/etc/samba/smb.reserved.conf"));
    ASSERT_EQ(1u, smb.size());
    EXPECT_EQ(7u, smb["printers"].size());
    EXPECT_EQ(usbrig::count_event("lp0 open") + usbrig::count_event("lp1 open"),
              usbrig::count_event("lp0 close") + usbrig::count_event("lp1 close"));
    EXPECT_EQ(fds, qpt::open_fd_count());

    // And it still works afterwards.
    ASSERT_EQ(0, QORAPrinterEnableExt(1, "lp1", "1-2"));
    EXPECT_EQ("lp1=\"1-2\"\n", qpt::read_file("/tmp/usbtab"));
    EXPECT_EQ(1, QORAPrinterEnumCount(3, nullptr));
}

}  // namespace
