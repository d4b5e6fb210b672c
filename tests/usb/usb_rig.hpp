// Test rig for USB printers: the simulated printer nodes on /dev/usb (the
// qp-usbdev FUSE file system) and fake USB devices in a tmpfs mounted over
// /sys/bus/usb/devices.  Only inside the sandbox: both mounts are private to
// its mount namespace.
#pragma once

#include <string>
#include <vector>

namespace usbrig {

inline constexpr const char *kEventLog = "/run/qp-usbdev.log";
inline constexpr const char *kSysfs = "/sys/bus/usb/devices";

// Mounts the fake sysfs and starts qp-usbdev once per process; resets both
// nodes to their defaults, clears the event log and the fake devices.
void setup();

// Sends control lines to the simulated driver ("lp0 busy=2", "reset"); a
// line it refuses fails the test.
void control(const std::string &lines);

// Lines of the event log since the last clear ("lp0 open", "lp0 ENABLE").
std::vector<std::string> events();
void clear_events();
// Number of event lines equal to the text.
size_t count_event(const std::string &line);

struct Device {
    std::string busid;
    std::string vendor = "04a9";  // idVendor text ("" leaves the file out)
    std::string product = "1827";
    std::string serial = "A1B2C3";
    std::string iface_class = "07";  // bInterfaceClass of <busid>:1.0
};
// Every device's maker is "Acme", its product name "Laser USB".
void add_device(const Device &d);

// Installs the recording stand-in at /usr/bin/bind_driver.
void install_bind_driver();

// The library's files, removed between tests.
void clear_library_files();

}  // namespace usbrig
