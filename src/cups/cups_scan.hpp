// Readers of the CUPS tools' output, each defined in the source file of the
// function that runs the tool and declared here so that fuzzers can feed
// them any text.  None of them is exported.  errno is kept across each.
#pragma once

#include <stdio.h>

namespace qp::cups {

// ---- lpstat -v (printer_cups_name_check.cpp) ---------------------------------
// Lines read in 1024-byte pieces and trimmed.  -1: the listing was cut short
// by a signal; 0: no line holds the queue name; 1: the first line holding it
// also holds the printer ID; 2: it does not.
int name_check_scan(FILE *pPipe, const char *szPrinterId, const char *szCupsPrinterName);

// ---- lpstat -v (printer_cups_printer_add.cpp) ----------------------------------
// Sets seen1 / seen2 when a line holds "usbprinter1" / "usbprinter2" (a line
// that sets seen1 is not looked at for the other name).  True when the
// listing was cut short by a signal.
bool usb_names_scan(FILE *pPipe, bool &seen1, bool &seen2);

// ---- lpq -P QUEUE (printer_cups_job_wait_complete.cpp) ----------------------
// Whole lines of any length, searched for the job ID as a plain substring.
enum class LpqScan { kListed, kEnd, kReadError };
LpqScan lpq_job_scan(FILE *pPipe, const char *szJobId);

}  // namespace qp::cups
