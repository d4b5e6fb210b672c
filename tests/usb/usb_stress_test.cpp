// Eight processes attach and detach lp0 and lp1 at once: the tables stay
// well-formed and end consistent.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "qoraprinter.h"
#include "qp_test.hpp"
#include "usb_rig.hpp"

namespace {

constexpr int kProcesses = 8;
constexpr int kCycles = 50;  // per process: 400 attach/detach cycles in all
const char *kConf = "/usr/qora/etc/printer.conf";
const char *kSmb = "/etc/samba/smb.reserved.conf";

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
        failures += QORAPrinterEnableExt(0, "lp0", nullptr) != 0;
        failures += QORAPrinterEnableExt(0, "lp1", nullptr) != 0;
        _exit(failures > 255 ? 255 : failures);
    }
    for (pid_t pid : pids) {
        int status = 0;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "failed calls: " << WEXITSTATUS(status);
    }

    EXPECT_EQ("", qpt::read_file("/tmp/usbtab")) << "every process ends with both printers detached";
    EXPECT_EQ(fds, qpt::open_fd_count());

    // The files hold exactly what one attach of each printer writes: no lost,
    // doubled or torn sections.  That attach also shows no lock was left held.
    const std::string conf = qpt::read_file(kConf), smb = qpt::read_file(kSmb);
    qpt::write_file("/tmp/stress.conf", conf);
    usbrig::clear_library_files();
    ASSERT_EQ(0, QORAPrinterEnableExt(1, "lp0", "1-1"));
    ASSERT_EQ(0, QORAPrinterEnableExt(1, "lp1", "1-2"));
    EXPECT_EQ(qpt::read_file(kSmb), smb);
    EXPECT_EQ(qpt::read_file(kConf).size(), conf.size()) << conf;
    for (const char *id : {"04a9:1827:A1B2C3", "03f0:002a:XZ9"}) {
        EXPECT_NE("", usbrig::section_text(kConf, id));
        EXPECT_EQ(usbrig::section_text(kConf, id), usbrig::section_text("/tmp/stress.conf", id)) << id;
    }
}

}  // namespace
