// The fixed places the library works on.
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
