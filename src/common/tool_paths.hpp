// The programs the library and the qoraprinter command run, by absolute
// path (never looked up in PATH).
#pragma once

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
