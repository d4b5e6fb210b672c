// Functions shared inside the library but not exported.
#pragma once

// Makes sure the "printers" section of the Samba configuration exists.
// 0 when it exists afterwards, -1 on failure.
int QORAPrinterSmbConfSetup(void);

// Copies a PPD file to the kept copy named by the printer ID.
// 0 on success, -1 on failure.
int printer_backup_ppd(const char *szPpdFile, const char *szPrinterId);
