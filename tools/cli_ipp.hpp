// qoraprinter: what a network printer says about itself over IPP.
//
// The printer is asked with ipptool (a Get-Printer-Attributes request); a
// driverless printer's PPD is made by cups-filters' driverless program from
// the same attributes.  Both run by absolute path, bounded in time and
// output.  The functions take parsed arguments and return plain results; the
// net subcommands print them.
#pragma once

#include <stdio.h>

#include <map>
#include <string>
#include <vector>

namespace qpipp {

// Exit status of a subcommand whose answer is "no" (the printer does not
// speak IPP, or not IPP Everywhere).

// An IPv4 or IPv6 address, or a host name (letters, digits, '-', '.', not
// starting with '-'), at most 253 characters.
bool valid_host(const std::string &host);
// ipp://HOST/ipp/print (an IPv6 address in brackets).
std::string printer_uri(const std::string &host);

// Attribute name -> its values as text (enums as their numbers).
using Attrs = std::map<std::string, std::vector<std::string>>;

// ipptool's XML report (-X): the status code and the response attributes
// of its first test; false when the report holds no response.
bool parse_report(const std::string &xml, std::string &status_code, Attrs &attrs);

struct Supply {
    std::string name, type, color;
    int level = -1;  // percent, -1 unknown
    int low = -1, high = -1;
};

struct PrinterStatus {
    std::string address, uri;
    bool ipp = false;     // the printer answered the request
    bool failed = false;  // ipptool could not run (or was killed): no answer either way
    std::string problem;  // why not, or what an IPP printer lacks
    std::string make_and_model, state, message;
    std::vector<std::string> reasons, formats;
    bool accepting = false;
    bool everywhere = false;  // takes a document format a driverless queue can send
    std::vector<Supply> supplies;
};

// Builds the status from a printer's attributes (also used by the tests).
void fill_status(const Attrs &attrs, PrinterStatus &st);
// Asks the printer at host (already validated).
PrinterStatus query_status(const std::string &host);
void print_status(const PrinterStatus &st, bool json, FILE *out);

// A PPD made for a driverless printer, in a private directory that the
// destructor removes.
struct DriverlessPpd {
    DriverlessPpd() = default;
    DriverlessPpd(const DriverlessPpd &) = delete;
    DriverlessPpd &operator=(const DriverlessPpd &) = delete;
    ~DriverlessPpd();
    bool ok = false;
    bool no = false;  // the printer does not speak IPP (Everywhere)
    std::string problem;
    std::string path;  // the PPD file
    std::string make_and_model, device_id;
    std::string dir;
};

// Asks the printer for its capabilities and makes its PPD.
void make_driverless_ppd(const std::string &host, DriverlessPpd &out);

}  // namespace qpipp
