// qoraprinter subcommands for USB printers (attach, detach, device access),
// the printer list, the print share, the network printer table and USB/IP.
#include <cstdio>
#include <cstring>
#include <string>

#include "cli.hpp"
#include "qoracore.h"
#include "qoraprinter.h"

namespace {

using qpcli::clear_slot;
using qpcli::cmd;
using qpcli::done;

// The library never clears the error slot; a stale code must not be
// reported for a failure that set none.
int attach(const qpcli::Args &a) {
    if (a.size() != 2) return -1;
    clear_slot();
    return done(QORAPrinterEnableExt(1, a[0].c_str(), a[1].c_str()), "attach");
}

int detach(const qpcli::Args &args) {
    qpcli::Args a = args;
    std::string bus;
    bool byBus = qpcli::take_option(a, "--bus", bus);
    if (a.size() > 1 || (!byBus && a.size() != 1)) return -1;
    const char *dev = a.empty() ? nullptr : a[0].c_str();
    clear_slot();
    return done(QORAPrinterEnableExt(0, dev, byBus ? bus.c_str() : nullptr), "detach");
}

int list(const qpcli::Args &args) {
    qpcli::Args a = args;
    int flags = 0;
    if (qpcli::take_flag(a, "--usb")) flags |= 1;
    if (qpcli::take_flag(a, "--net")) flags |= 2;
    if (!a.empty()) return -1;
    if (flags == 0) flags = 3;
    PQLIBSZLIST ids = nullptr;
    clear_slot();
    int n = QORAPrinterEnumCount(flags, &ids);
    if (n < 0) return qpcli::fail("list");
    for (int i = 0; i < n; ++i) std::printf("%s\n", QLIBCSzListGet(ids, i));
    QLIBCSzListFree(ids);
    return 0;
}

int device_id(const qpcli::Args &a) {
    if (a.size() != 1) return -1;
    static char buf[4096];
    int rc = QORAPrinterGetStringId(a[0].c_str(), buf, sizeof(buf));
    if (rc < 0) {
        std::fprintf(stderr, "device-id: cannot read the device ID of %s\n", a[0].c_str());
        return 1;
    }
    std::printf("%s\n", buf);
    if (rc > 0) std::fprintf(stderr, "device-id: the device reports %d bytes; the text may be cut\n", rc);
    return 0;
}

int reset(const qpcli::Args &a) {
    if (a.size() != 1) return -1;
    if (QORAResetPrinter(a[0].c_str()) != 0) {
        std::fprintf(stderr, "reset: failed for %s\n", a[0].c_str());
        return 1;
    }
    return 0;
}

int share_status(const qpcli::Args &a) {
    if (!a.empty()) return -1;
    std::printf("%s\n", QORAPrinterIsActive() == 1 ? "active" : "not active");
    return 0;
}

int nptab(const qpcli::Args &a, int action, const char *what) {
    if (a.size() != 2) return -1;
    PrinterNetConf conf;
    std::memset(&conf, 0, sizeof(conf));
    if (a[0].size() >= sizeof(conf.szIP) || a[1].size() >= sizeof(conf.szCupsPrinterName)) {
        std::fprintf(stderr, "%s: address or queue name too long\n", what);
        return 1;
    }
    std::memcpy(conf.szIP, a[0].data(), a[0].size());
    std::memcpy(conf.szCupsPrinterName, a[1].data(), a[1].size());
    clear_slot();
    return done(QORAPrinterNetUpdateConf(action, &conf), what);
}

int usbip_status(const qpcli::Args &a) {
    if (a.size() != 1) return -1;
    char buf[256];
    clear_slot();
    if (QORAPrinterUsbipGetLockStatus(a[0].c_str(), buf, sizeof(buf)) != 0) return qpcli::fail("usbip status");
    std::printf("%s\n", buf);
    return 0;
}

int usbip_queue(const qpcli::Args &a) {
    if (a.size() != 1) return -1;
    char buf[4096];
    clear_slot();
    if (QORAPrinterQueueGet(a[0].c_str(), buf, sizeof(buf)) != 0) return qpcli::fail("usbip queue");
    std::printf("%s\n", buf);
    return 0;
}

int usbip_release(const qpcli::Args &a) {
    if (a.size() != 1) return -1;
    clear_slot();
    return done(QORAPrinterUsbipLockRelease(a[0].c_str()), "usbip release");
}

int usbip_eject(const qpcli::Args &a) {
    if (a.size() != 1) return -1;
    clear_slot();
    return done(QORAPrinterUsbipEject(a[0].c_str()), "usbip eject");
}

int nptab_add(const qpcli::Args &a) { return nptab(a, 1, "nptab add"); }
int nptab_rm(const qpcli::Args &a) { return nptab(a, 0, "nptab rm"); }

const qpcli::Register reg{{
    cmd("attach", "DEV BUSID", "attach a USB printer (hot-plug add: lp0 1-1)", attach),
    cmd("detach", "DEV | --bus BUSID [DEV]", "detach a USB printer by device name or bus ID", detach),
    cmd("list", "[--usb] [--net]", "printer IDs of attached USB and known network printers", list),
    cmd("device-id", "DEV", "the IEEE 1284 device ID string a USB printer reports", device_id),
    cmd("reset", "DEV", "soft-reset a USB printer", reset),
    cmd("share-status", "", "whether the Samba [printers] share is complete", share_status),
    cmd("nptab add", "IP QUEUE", "add or replace a network printer table entry", nptab_add),
    cmd("nptab rm", "IP QUEUE", "remove a network printer table entry", nptab_rm),
    cmd("usbip status", "ID", "lock status of a printer shared over USB/IP", usbip_status),
    cmd("usbip queue", "ID", "queue name of a printer shared over USB/IP", usbip_queue),
    cmd("usbip release", "ID", "release a USB/IP-shared printer's lock", usbip_release),
    cmd("usbip eject", "ID", "eject a USB/IP-shared printer", usbip_eject),
}};

}  // namespace
