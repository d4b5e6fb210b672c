#include "usb_rig.hpp"

#include <sys/mount.h>
#include <syslog.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "qp_test.hpp"

namespace usbrig {

// Set-up failures end the program at once, with the reason.
static void die(const std::string &what) {
    fprintf(stderr, "usb rig: %s\n", what.c_str());
    abort();
}

void setup() {
    static bool started = false;
    if (!qpt::in_sandbox()) die("must run inside qp-sandbox");
    if (!started) {
        // The syslog socket stays open once used; open it now so that it
        // does not count as a descriptor leak of the first call that logs.
        openlog(nullptr, LOG_NDELAY, LOG_USER);
        // A machine without a USB bus has no /sys/bus/usb, and sysfs takes
        // no new directories: the tmpfs then goes over /sys/bus instead.
        const char *where = qpt::exists("/sys/bus/usb") ? kSysfs : "/sys/bus";
        if (mount("tmpfs", where, "tmpfs", 0, "mode=0755") != 0) die(std::string("cannot mount a tmpfs on ") + where);
        qpt::mkdirs(kSysfs);
        qpt::mkdirs("/dev/usb");
        qpt::start({qpt::bin_path("qp-usbdev"), "/dev/usb", kEventLog});
        if (!qpt::wait_until([] { return qpt::exists("/dev/usb/control"); }, 5000)) die("qp-usbdev did not mount");
        started = true;
    }
    control("reset");
    clear_events();
    for (const auto &e : std::filesystem::directory_iterator(kSysfs)) std::filesystem::remove_all(e.path());
    clear_library_files();
}

void control(const std::string &lines) { qpt::write_file("/dev/usb/control", lines + "\n", 0666); }

std::vector<std::string> events() {
    std::vector<std::string> out;
    std::istringstream in(qpt::read_file(kEventLog));
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

void clear_events() { qpt::write_file(kEventLog, ""); }

size_t count_event(const std::string &line) { return std::ranges::count(events(), line); }

void add_device(const Device &d) {
    const std::string dir = std::string(kSysfs) + "/" + d.busid;
    const std::pair<const char *, std::string> attrs[] = {
        {"idVendor", d.vendor}, {"idProduct", d.product}, {"serial", d.serial},
        {"manufacturer", "Acme"}, {"product", "Laser USB"}};
    for (const auto &[name, value] : attrs)
        if (!value.empty()) qpt::write_file(dir + "/" + name, value + "\n");
    qpt::write_file(dir + "/" + d.busid + ":1.0/bInterfaceClass", d.iface_class + "\n");
}

void install_bind_driver() {
    qpt::write_file("/usr/bin/bind_driver", qpt::read_file(qpt::source_path("tests/usb/fake_bind_driver.sh")), 0755);
    for (const char *f : {"/tmp/bind_driver.log", "/tmp/bind_driver.status"}) qpt::remove_file(f);
}

void clear_library_files() {
    for (const char *f :
         {"/tmp/usbtab", "/usr/qora/etc/printer.conf", "/usr/qora/etc/nptab", "/etc/samba/smb.reserved.conf"})
        qpt::remove_file(f);
}

}  // namespace usbrig
