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
inline constexpr const char *kCupsPrintersConf = "/etc/cups/printers.conf";
inline constexpr const char *kCupsPpdDir = "/etc/cups/ppd/";
inline constexpr const char *kTestPage = "/usr/share/cups/data/testprint";
inline constexpr const char *kSpool = "/var/services/printer";

}  // namespace qp::path

namespace qp::fmt {

// Entry format of section files and line format of key-value files.
inline constexpr const char *kSectionEntry = "\t%s = %s\n";
inline constexpr const char *kKeyValue = "%s=\"%s\"\n";

}  // namespace qp::fmt

namespace qp::tool {

inline constexpr char kLpadmin[] = "/usr/bin/lpadmin";
inline constexpr char kLpstat[] = "/usr/bin/lpstat";
inline constexpr char kLpq[] = "/usr/bin/lpq";
inline constexpr char kLpr[] = "/usr/bin/lpr";
inline constexpr char kLprm[] = "/usr/bin/lprm";
inline constexpr char kCupsEnable[] = "/usr/bin/cupsenable";
inline constexpr char kCupsDisable[] = "/usr/bin/cupsdisable";
inline constexpr char kSnmpwalk[] = "/usr/bin/snmpwalk";
inline constexpr char kPing[] = "/bin/ping";
inline constexpr char kAvahiBrowse[] = "/usr/qora/sbin/avahi-browse";
inline constexpr char kBjnpBackend[] = "/usr/lib/cups/backend/bjnp";
inline constexpr char kBindDriver[] = "/usr/bin/bind_driver";
inline constexpr char kCp[] = "/bin/cp";
inline constexpr char kMkdir[] = "/bin/mkdir";
inline constexpr char kRm[] = "/bin/rm";
inline constexpr char kIpptool[] = "/usr/bin/ipptool";
inline constexpr char kDriverless[] = "/usr/bin/driverless";

}  // namespace qp::tool
