// The fixed places the library works on, and the programs it runs (by
// absolute path, never looked up in PATH; the qoraprinter command uses them
// too).
#pragma once

namespace qp::path {

inline constexpr const char *kPrinterConf = "/usr/qora/etc/printer.conf";
inline constexpr const char *kConfLock = "/run/qorasdk/lock/lock_printer";
inline constexpr const char *kUsbtab = "/tmp/usbtab";
inline constexpr const char *kNptab = "/usr/qora/etc/nptab";
inline constexpr const char *kSmbReserved = "/etc/samba/smb.reserved.conf";
inline constexpr const char *kUsbipStatusFmt = "/tmp/usbip_%s";
inline constexpr const char *kCupsPrintersConf = "/etc/cups/printers.conf";
inline constexpr const char *kCupsPpdDir = "/etc/cups/ppd/";
inline constexpr const char *kCupsPpdFmt = "/etc/cups/ppd/%s.ppd";
inline constexpr const char *kTestPage = "/usr/share/cups/data/testprint";
inline constexpr const char *kSpool = "/var/services/printer";

// Entry format of section files and line format of key-value files.
inline constexpr const char *kSectionEntryFmt = "\t%s = %s\n";
inline constexpr const char *kKeyValueFmt = "%s=\"%s\"\n";

}  // namespace qp::path

namespace qp::tool {

inline constexpr const char *kLpadmin = "/usr/bin/lpadmin";
inline constexpr const char *kLpstat = "/usr/bin/lpstat";
inline constexpr const char *kLpq = "/usr/bin/lpq";
inline constexpr const char *kLpr = "/usr/bin/lpr";
inline constexpr const char *kLprm = "/usr/bin/lprm";
inline constexpr const char *kCupsEnable = "/usr/bin/cupsenable";
inline constexpr const char *kCupsDisable = "/usr/bin/cupsdisable";
inline constexpr const char *kSnmpwalk = "/usr/bin/snmpwalk";
inline constexpr const char *kPing = "/bin/ping";
inline constexpr const char *kAvahiBrowse = "/usr/qora/sbin/avahi-browse";
inline constexpr const char *kBjnpBackend = "/usr/lib/cups/backend/bjnp";
inline constexpr const char *kBindDriver = "/usr/bin/bind_driver";
inline constexpr const char *kCp = "/bin/cp";
inline constexpr const char *kMkdir = "/bin/mkdir";
inline constexpr const char *kRm = "/bin/rm";
inline constexpr const char *kIpptool = "/usr/bin/ipptool";
inline constexpr const char *kDriverless = "/usr/bin/driverless";

}  // namespace qp::tool
