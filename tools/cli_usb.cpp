// qoraprinter subcommands for USB printers (attach, detach, device access),
// the printer list, the print share, the network printer table and USB/IP.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "cli.hpp"
#include "qoracore.h"
#include "qoraprinter.h"

namespace {

using namespace qpcli;

// The USB bus ID of a usblp node, read from sysfs: /sys/class/usbmisc/lpN
// links to .../BUS/BUS:CONFIG.INTERFACE/usbmisc/lpN.  Empty when the node is
// not there or the link does not have that shape.
std::string sysfs_bus_id(const std::string &dev) {
    if (dev.size() < 3 || dev.compare(0, 2, "lp") != 0 || dev.find_first_not_of("0123456789", 2) != std::string::npos)
        return {};
    char link[4096];
    const ssize_t n = readlink(("/sys/class/usbmisc/" + dev).c_str(), link, sizeof link);
    if (n <= 0 || static_cast<size_t>(n) >= sizeof link) return {};
    std::vector<std::string> parts;
    std::string_view rest(link, static_cast<size_t>(n));
    for (size_t slash; (slash = rest.find('/')) != std::string_view::npos; rest.remove_prefix(slash + 1))
        parts.emplace_back(rest.substr(0, slash));
    parts.emplace_back(rest);
    if (parts.size() < 4 || parts[parts.size() - 1] != dev || parts[parts.size() - 2] != "usbmisc") return {};
    const std::string &bus = parts[parts.size() - 4];
    const std::string &iface = parts[parts.size() - 3];
    if (bus.empty() || bus[0] == '-' || iface.compare(0, bus.size() + 1, bus + ":") != 0) return {};
    return bus;
}

int attach(const qpcli::Args &a) {
    if (a.empty() || a.size() > 2) return qpcli::kBadArgs;
    const std::string bus = a.size() == 2 ? a[1] : sysfs_bus_id(a[0]);
    if (bus.empty()) return say(qpcli::kFailed, "attach: no USB bus ID for %s in /sys/class/usbmisc.", a[0].c_str());
    begin_call();
    return done(QORAPrinterEnableExt(1, a[0].c_str(), bus.c_str()), "attach");
}

int detach(const qpcli::Args &args) {
    qpcli::Args a = args;
    std::string bus;
    const bool by_bus = qpcli::take_option(a, "--bus", bus);
    if (a.size() > 1 || (!by_bus && a.size() != 1)) return qpcli::kBadArgs;
    begin_call();
    return done(QORAPrinterEnableExt(0, a.empty() ? nullptr : a[0].c_str(), by_bus ? bus.c_str() : nullptr), "detach");
}

int list(const qpcli::Args &args) {
    qpcli::Args a = args;
    int flags = 0;
    if (qpcli::take_flag(a, "--usb")) flags |= 1;
    if (qpcli::take_flag(a, "--net")) flags |= 2;
    if (!a.empty()) return qpcli::kBadArgs;
    PQLIBSZLIST ids = nullptr;
    begin_call();
    const int n = QORAPrinterEnumCount(flags ? flags : 3, &ids);
    if (n < 0) return qpcli::fail("list");
    qpcli::Json j;
    j.open().array("printers");
    for (int i = 0; i < n; ++i) {
        if (json())
            j.str(QLIBCSzListGet(ids, i));
        else
            std::printf("%s\n", QLIBCSzListGet(ids, i));
    }
    if (json()) j.end_array().close().print();
    QLIBCSzListFree(ids);
    return qpcli::kOk;
}

int device_id(const qpcli::Args &a) {
    if (a.size() != 1) return qpcli::kBadArgs;
    static char buf[4096];
    begin_call();
    const int rc = QORAPrinterGetStringId(a[0].c_str(), buf, sizeof(buf));
    if (rc < 0) return qpcli::fail(("device-id " + a[0]).c_str());
    if (json())
        qpcli::Json().open().field("device", a[0]).field("id", buf).field("cut", rc > 0).close().print();
    else
        std::printf("%s\n", buf);
    if (rc > 0) say(0, "device-id: the device reports %d bytes; the text may be cut.", rc);
    return qpcli::kOk;
}

int reset(const qpcli::Args &a) {
    if (a.size() != 1) return qpcli::kBadArgs;
    begin_call();
    return done(QORAResetPrinter(a[0].c_str()), ("reset " + a[0]).c_str());
}

int share_status(const qpcli::Args &a) {
    if (!a.empty()) return qpcli::kBadArgs;
    begin_call();
    const bool active = QORAPrinterIsActive() == 1;
    if (json())
        qpcli::Json().open().field("active", active).close().print();
    else
        std::printf("%s\n", active ? "active" : "not active");
    return active ? qpcli::kOk : qpcli::kNo;
}

int nptab(const qpcli::Args &a, int action, const char *what) {
    if (a.size() != 2) return qpcli::kBadArgs;
    PrinterNetConf conf;
    std::memset(&conf, 0, sizeof(conf));
    if (!qpcli::set_field(conf.szIP, a[0]) || !qpcli::set_field(conf.szCupsPrinterName, a[1]))
        return say(qpcli::kUsage, "%s: the address or the queue name is too long.", what);
    begin_call();
    return done(QORAPrinterNetUpdateConf(action, &conf), what);
}
int nptab_add(const qpcli::Args &a) { return nptab(a, 1, "nptab add"); }
int nptab_rm(const qpcli::Args &a) { return nptab(a, 0, "nptab rm"); }

// Status and queue name of a USB/IP-shared printer: one text field each.
int usbip_text(const qpcli::Args &a, int (*fn)(const char *, char *, int), const char *what, const char *key) {
    if (a.size() != 1) return qpcli::kBadArgs;
    char buf[4096];
    begin_call();
    if (fn(a[0].c_str(), buf, sizeof(buf)) != 0) return qpcli::fail(what);
    if (json())
        qpcli::Json().open().field("printer", a[0]).field(key, buf).close().print();
    else
        std::printf("%s\n", buf);
    return qpcli::kOk;
}
int usbip_status(const qpcli::Args &a) {
    return usbip_text(a, QORAPrinterUsbipGetLockStatus, "usbip status", "status");
}
int usbip_queue(const qpcli::Args &a) { return usbip_text(a, QORAPrinterQueueGet, "usbip queue", "queue"); }

int usbip_release(const qpcli::Args &a) {
    if (a.size() != 1) return qpcli::kBadArgs;
    begin_call();
    return done(QORAPrinterUsbipLockRelease(a[0].c_str()), "usbip release");
}

int usbip_eject(const qpcli::Args &a) {
    if (a.size() != 1) return qpcli::kBadArgs;
    begin_call();
    return done(QORAPrinterUsbipEject(a[0].c_str()), "usbip eject");
}

const qpcli::Register reg{{
    cmd("attach", "DEV [BUSID]", "Attach a USB printer (the hot-plug add: lp0 1-1; no BUSID: from sysfs).", attach),
    cmd("detach", "DEV | --bus BUSID [DEV]", "Detach a USB printer by device name or bus ID.", detach),
    cmd("list", "[--usb] [--net]", "Printer IDs of attached USB and known network printers.", list, kJson),
    cmd("device-id", "DEV", "The IEEE 1284 device ID string a USB printer reports.", device_id, kJson),
    cmd("reset", "DEV", "Soft-reset a USB printer.", reset),
    cmd("share-status", "", "Whether the Samba [printers] share is complete (0 yes, 3 no).", share_status, kJson),
    cmd("nptab add", "IP QUEUE", "Add or replace a network printer table entry.", nptab_add),
    cmd("nptab rm", "IP QUEUE", "Remove a network printer table entry.", nptab_rm),
    cmd("usbip status", "ID", "Lock status of a printer shared over USB/IP.", usbip_status, kJson),
    cmd("usbip queue", "ID", "Queue name of a printer shared over USB/IP.", usbip_queue, kJson),
    cmd("usbip release", "ID", "Release a USB/IP-shared printer's lock.", usbip_release),
    cmd("usbip eject", "ID", "Eject a USB/IP-shared printer.", usbip_eject),
}};

}  // namespace
