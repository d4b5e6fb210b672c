// Readers of the network tools' output and of the network printer table.  Each is defined in the source file
// of the function that runs the tool; they are declared here so that tests
// and benchmarks can feed them recorded output.  None of them is exported.
//
// Every reader takes the tool's output one line at a time into a 1024-byte
// buffer (a longer line arrives in pieces, each handled as a line), trims it
// and tests it by case-sensitive substring search unless noted.  A read that
// fails with EINTR is told from the end of the output by setting errno to 0
// before each read.
#pragma once

#include <errno.h>
#include <stdio.h>

#include <string_view>

#include "qoracore.h"
#include "qoraprinter.h"

namespace qp::net {

inline constexpr int kLineSize = 1024;

// Reads the next line of a tool's output.  errno is set to 0 before each
// read, so that a read interrupted by a signal (EINTR) is told from the end
// of the output and tried again; the tenth interruption of one run ends it.
enum class ReadResult { kLine, kEnd, kInterrupted };
inline ReadResult read_line(FILE *out, char (&line)[kLineSize], int &interrupts) {
    for (;;) {
        errno = 0;
        if (fgets(line, kLineSize, out)) return ReadResult::kLine;
        if (errno != EINTR) return ReadResult::kEnd;
        if (++interrupts >= 10) return ReadResult::kInterrupted;
        clearerr(out);
    }
}

// Hands each line of a tool's output (read_line, then trimmed) to VISIT
// (bool(char *line)), which answers true to stop there.
enum class Lines { kEnd, kInterrupted, kStopped };
template <class Visit>
Lines each_line(FILE *out, Visit &&visit) {
    char line[kLineSize];
    int interrupts = 0;
    for (;;) {
        switch (read_line(out, line, interrupts)) {
            case ReadResult::kInterrupted:
                return Lines::kInterrupted;
            case ReadResult::kEnd:
                return Lines::kEnd;
            case ReadResult::kLine:
                break;
        }
        QLIBCStrTrim(line, 0, 0);
        if (visit(static_cast<char *>(line))) return Lines::kStopped;
    }
}

// ---- snmpwalk: device ID string (printer_net_get_string_id.cpp) -------------
// True when a trimmed line names a maker and a model key and holds a quoted
// string; *value is then the text after the opening quote, less the line's
// last character (the closing quote).
bool string_id_value(std::string_view line, std::string_view *value);
// Reads the walk until the first qualifying line and copies its value into
// szOutBuf (NUL-terminated).  0 found; 1 no output at all; -1 output without
// a qualifying line, ten interrupted reads, or a value of iOutSize bytes or
// more (error 0xBF00 then).
int string_id_read(FILE *walk, char *szOutBuf, int iOutSize);

// ---- snmpwalk: device URI (printer_net_get_string_backend.cpp) ---------------
enum class UriLine { kSkip, kSelect, kStop };
// Classifies a trimmed line: kSelect with *candidate the text after its first
// double quote when that begins with a known scheme; kStop when a line with
// "://" has no double quote or too short a candidate; kSkip otherwise.
UriLine uri_line(std::string_view line, std::string_view *candidate);
// Reads the walk until a line is selected and copies its candidate less the
// closing quote into szUri (cut to cbUri - 1).  0 selected; 1 none; -1 stop
// or ten interrupted reads.
int uri_read(FILE *walk, char *szUri, int cbUri);
// Splits a URI that uri_read selected (the text is changed) into the backend
// (lower case; "LPR" gives "lpd") and the queue, its first path segment or
// empty; each cut to its size.  0, or -1 for an unknown scheme or no colon.
int uri_split(char *szUri, char *szBackend, int iBackendSize, char *szQName, int iQNameSize);

// ---- lpstat -v (printer_net_cups_name_and_ip_check.cpp) ----------------------
// The queue name of a "device for NAME: URI" line: the text after the second
// blank up to its first colon.  False when the line has fewer than two blanks.
bool lpstat_queue_word(std::string_view line, std::string_view *word);
// One run of lpstat -v: 1 when the first line naming the queue holds the
// pattern, 2 when it does not, 0 when no line names it, -1 when a read was
// interrupted (the run is tried again).
int lpstat_name_scan(FILE *pPipe, const char *szCupsPrinterName, const char *szIpPattern);

// ---- lpstat -v (printer_net_ip_check.cpp) ------------------------------------
// One run of lpstat -v: 0 a line holds the pattern, 1 none does, -1 a read
// was interrupted.
int lpstat_ip_scan(FILE *pPipe, const char *szIpPattern);

// ---- nptab (printer_net_nptab_enum.cpp) ----------------------------------------
// Pushes "KEY-VALUE" for every key="value" line onto the list, skipping blank
// lines; the first line that is not an entry ends it with -1 (read here with
// fgets as it is, not trimmed).  0 at the end of the table.
int nptab_read(FILE *table, PQLIBSZLIST *ppList);

// ---- ping (printer_net_ping_status.cpp) ----------------------------------------
// For a line holding "packet loss": true when the loss figure (third comma
// field, up to its percent sign) reads as a number other than 100.  A line
// without a third field or without digits there gives false.
bool ping_summary_online(std::string_view line);
// Reads ping's output, writing "Offline" first and "Online" when the summary
// says so.  0 done; -1 after ten interrupted reads.
int ping_read(FILE *out, char *szStatus, int cbStatus);

// ---- BJNP backend listing (printer_net_bjnp_info_get.cpp) --------------------
// The reader of one run of the backend: 0 the address's line was found and
// the record filled; 1 not listed (or listed as "Unknown"); -1 failure.
int bjnp_read(FILE *pPipe, const char *szIpPattern, PrinterNetInfo *pNPInfo);

// ---- avahi-browse -arpt (printer_net_avahi_info_get.cpp) ---------------------
// TXT data of the last record of the address seen per known port, in order of
// priority: 8611, 9100, 515, 631.
struct AvahiSlots {
    char txt[4][kLineSize];
};
// Reads the browse output into the slots.  0 at the end of the output; -1 on a
// failed split or the tenth interrupted read.  The list receives the pieces of
// the lines of the address.
int avahi_read(FILE *browse, const char *szPattern, PQLIBSZLIST *ppList, AvahiSlots *slots);
// Fills model, vendor and (when the record holds none) the device ID string
// from one record's TXT data.  0, or -1 for a NULL argument.
int avahi_txt_read(const char *szDesc, PrinterNetInfo *pNPInfo);

}  // namespace qp::net
