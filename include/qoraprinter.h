/*
 * qoraprinter.h - printer management for the storage appliance.
 *
 * Plain C interface.  Every function checks its arguments first, reports a
 * failure through its result, an error code in the core library's error slot
 * (QLIBCErrGet, QLIBCErrorGetFile, QLIBCErrorGetLine) and one syslog line.
 *
 * Conventions (each function's comment says where it differs):
 * - Results: 0 success and -1 failure; counts for enumerations; 1 yes and
 *   0 no for checks; the SNMP queries and discoveries answer 0 found,
 *   1 nothing there, -1 failure.
 * - Error codes: 0x0100 name too long, 0x0200 out of memory, 0x0400 lock
 *   failed, 0x0500 unlock failed, 0x0900 open failed, 0x0A00 read failed,
 *   0x0B00 write failed, 0x0D00 bad parameter, 0x2000 key not found,
 *   0x2600 field not found, 0x2800 rename failed, 0x2A00 external program
 *   failed, 0x3900 remove key failed, 0xBF00 value too long, 0xD000 service
 *   running.  A function may also leave the code a lower call set.  The slot
 *   is never cleared: read it right after a failed call, never after a
 *   success.
 * - Buffers: szBuf/cbBuf pairs are written NUL-terminated and cut to fit;
 *   after a failure a buffer may hold partial text.  Every object a function
 *   allocates for itself is freed before it returns; what it hands out
 *   (QORACupsGetPPD's text, QORAPrinterUsbtabEnum's block, string lists) is
 *   the caller's to free, as each comment says.
 * - Threads and processes: no state in memory between calls; files are
 *   written under file locks, so calls from several processes are safe.
 *   See libqoraprinter(3).
 */
#ifndef QORAPRINTER_H
#define QORAPRINTER_H

#include "qoracore.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(QORAPRINTER_BUILD)
#define QORAPRINTER_API __attribute__((visibility("default")))
#else
#define QORAPRINTER_API
#endif

/* One USB printer's section of printer.conf. */
typedef struct PrinterConf {
    char szManualLockTimer[4];
    char szAutoLockTimer[4];
    char szMode[128];
    char szPrinterId[128];
    char szProducer[128];
    char szProductName[256];
    char szEnableAirprint[8];
    char szEnableGoogleCloudPrint[8];
    char szDriverBrand[128];
    char szDriver[128];
    char szUsblpStringId[1024];
    char szDetectedVendor[128];
    char szDetectedModel[128];
    char szFitToPage[8];
} PrinterConf;

/* One network printer's configuration. */
typedef struct PrinterNetConf {
    char szIP[16];
    char szCupsPrinterName[128];
    char szBackend[128];
    char szQName[128];
    char szBrand[128];
    char szModel[128];
    char szEnableAirprint[8];
    char szEnableGoogleCloudPrint[8];
    char szReserved[2048];
    char szDriverBrand[128];
    char szDriver[128];
    char szStringId[1024];
    char szPrinterId[128];
    char szFitToPage[8];
} PrinterNetConf;

/* What probing learnt of the printer at one address. */
typedef struct PrinterNetInfo {
    char szReserved[16];
    char szBackend[1024];
    char szQName[1024];
    char szVendor[1024];
    char szModel[1024];
    char szStringId[1024];
} PrinterNetInfo;

/* The cloud print account. */
typedef struct PrinterGoogleInfo {
    char szAccount[255];
    char szPassword[128];
    char szRefreshToken[256];
} PrinterGoogleInfo;

/* Configuration store and its lock. */
/*
 * Takes the configuration lock, the file lock on /run/qorasdk/lock/lock_printer
 * that every writer of printer.conf holds around its write.  Tries 100 times,
 * 50 ms apart (about 5 s), without blocking in between.
 * Returns the lock's descriptor (0 or more), or a negative value when the lock
 * was not taken.  Sets no error code and logs nothing of its own.
 * Frees: the caller releases the lock with QORAPrinterPrinterConfUnlock().
 */
QORAPRINTER_API int QORAPrinterPrinterConfLock(void);
/*
 * Releases the configuration lock by closing fdLock, a descriptor from
 * QORAPrinterPrinterConfLock().
 * Returns 1 when the descriptor was closed, 0 when closing failed or fdLock is
 * negative.  Errors: 0x0D00 (bad parameter, logged) for a negative fdLock.
 */
QORAPRINTER_API int QORAPrinterPrinterConfUnlock(int fdLock);
/*
 * Writes the USB printer's section of printer.conf named by pConf->szPrinterId:
 * reads the stored section, sets in it every non-empty field of *pConf
 * ("producer", "product name", "mode", the two lock timers, "enable airprint",
 * "enable google cloud print", "driver", "driver brand", "usblp string id",
 * "fit to page") and writes the whole section back under the configuration
 * lock.  Keys not set keep their stored values.  bForce non-zero also stores
 * the two timers, "driver" and "driver brand" when their fields are empty.
 * The detected maker and model fields are not stored.  pConf is only read.
 * Returns 0, or -1 (or the negative result of the section append) on failure.
 * Errors: 0x0D00 (pConf NULL, not logged), 0x0200 (out of memory), 0x0400
 * (lock not taken: nothing written), or the core library's code of a failed
 * append or rewrite (logged).
 */
QORAPRINTER_API int QORAPrinterConfSetup(const PrinterConf *pConf, int bForce);
/*
 * Reads the "cups printer name" of the section szPrinterId of printer.conf into
 * szBuf (cbBuf bytes, NUL-terminated, cut to fit).
 * Returns 0 when the value exists and is not empty, -1 otherwise (a missing
 * section and a missing or empty key are not told apart; logged).
 * Errors: 0x0D00 (szPrinterId or szBuf NULL, or cbBuf not positive; not
 * logged); otherwise the code the core library left.
 */
QORAPRINTER_API int QORAPrinterCupsNameGet(const char *szPrinterId, char *szBuf, int cbBuf);

/* Device ID strings. */
/*
 * Looks up the key szType (with its colon, such as "MDL:") in the IEEE 1284
 * device ID string szStringId, case-insensitively, as a plain substring (the
 * first occurrence anywhere wins), and copies its value up to the next ';' (or
 * the end) into szBuf, cut to cbBuf - 1 characters and NUL-terminated.
 * szStringId is used as scratch and returned unchanged.
 * Returns 0 when the key was found (even with an empty value), -1 when it is
 * absent (no message, no code) or an argument is bad.
 * Errors: 0x0D00 (logged) for NULL or empty szStringId or szType, NULL szBuf,
 * cbBuf not positive.
 */
QORAPRINTER_API int QORAPrinterConfStringIdParse(char *szStringId, const char *szType, char *szBuf, int cbBuf);
/*
 * The maker: QORAPrinterConfStringIdParse() with "MANUFACTURER:", "MFG:",
 * "MFR:" in turn until one is found.  Results and errors as that function's;
 * a bad argument is reported once per key tried.
 */
QORAPRINTER_API int QORAPrinterConfStringIdGetVendor(char *szStringId, char *szBuf, int cbBuf);
/*
 * The model: QORAPrinterConfStringIdParse() with "MODEL:", "MDL:",
 * "DESCRIPTION:", "DES:" in turn.  Results and errors as that function's.
 */
QORAPRINTER_API int QORAPrinterConfStringIdGetModel(char *szStringId, char *szBuf, int cbBuf);
/*
 * The command set: QORAPrinterConfStringIdParse() with "COMMAND SET:", "CMD:"
 * in turn.  Results and errors as that function's.
 */
QORAPRINTER_API int QORAPrinterConfStringIdGetCmd(char *szStringId, char *szBuf, int cbBuf);
/*
 * Fills pConf->szDetectedVendor and pConf->szDetectedModel from the device ID
 * string that the printer helper library stores for pConf->szPrinterId.
 * Fields for which the string holds no pair keep their previous contents, so a
 * caller that needs to know clears them first.
 * Returns 0 when a device ID string was obtained (whatever it held), -1 on
 * failure.  Errors: 0x0D00 (pConf NULL), 0x2A00 (no or empty device ID
 * string); nothing is logged and nothing written on failure.
 */
QORAPRINTER_API int QORAPrinterModelDetect(PrinterConf *pConf);

/* USB printer device access. */
/*
 * Opens the USB printer node szDevName (a name under /dev/usb/ such as "lp0",
 * or a full path under /dev/; a name with a ".." component is refused) read
 * only, retrying a busy node up to iRetry times, one second apart.
 * Returns the open descriptor, or -1.  Sets no error code: a bad name logs
 * "bad parameter.", a node still busy after the retries logs a message.
 * Frees: the caller closes the descriptor.
 */
QORAPRINTER_API int QORAPrinterDevOpen(const char *szDevName, int iRetry);
/*
 * Asks the printer at szDevName for its IEEE 1284 device ID string and copies
 * it, without its two length bytes, into szBuf, cut to cbBuf - 1 characters
 * and NUL-terminated.  A busy node is retried (at most about 8 s), a failing
 * request likewise.
 * Returns 0 when the whole string fitted, the reply's length (greater than
 * cbBuf) when it may have been cut, -1 on failure.  Sets no error code; a
 * failure is logged.
 */
QORAPRINTER_API int QORAPrinterGetStringId(const char *szDevName, char *szBuf, int cbBuf);
/*
 * Sends the driver's soft reset to the printer at szDevName (busy node retried
 * as for QORAPrinterGetStringId()).
 * Returns 0 or -1.  Sets no error code; a failure is logged.
 */
QORAPRINTER_API int QORAResetPrinter(const char *szDevName);

/* USB printer table and printer enumerations. */
/*
 * Lists the device names (lp0, lp1, ...) of the USB printers in /tmp/usbtab.
 * *ppDevNames receives one malloc'd block: an array of *piCount pointers to
 * the names, the names stored in the same block.  A block already in
 * *ppDevNames is freed and replaced.
 * Returns 0, or -1 with *ppDevNames freed and set to NULL.
 * Errors: 0x0D00 (a NULL argument, not logged), 0x0200 (out of memory), or the
 * USB library's code.
 * Frees: the caller frees *ppDevNames with free() (once, the whole block).
 */
QORAPRINTER_API int QORAPrinterUsbtabEnum(char ***ppDevNames, int *piCount);
/*
 * Appends to the caller's list *ppList the printer ID of every USB printer
 * listed in /tmp/usbtab (a device whose information cannot be read is skipped
 * and logged).  *ppList must hold a list from QLIBCSzListAlloc().
 * Returns 0 or -1.  Errors: 0x0D00 (ppList or *ppList NULL, not logged), or the
 * USB library's code (logged).
 * Frees: the list stays the caller's (QLIBCSzListFree()).
 */
QORAPRINTER_API int QORAPrinterProcUsbtabIdEnum(PQLIBSZLIST *ppList);
/*
 * Counts printers: iFlags bit 1 the USB printers (their printer IDs), bit 2
 * the network printers of nptab, 3 both.  With ppList not NULL, the list of
 * those printer IDs, USB printers first, replaces *ppList (a list there is
 * freed).
 * Returns the number found (0 or more), or -1 when either source fails (no
 * partial list is handed out).  Errors: 0x0200 (out of memory) or the code of
 * the failing enumeration.
 * Frees: the caller frees the new *ppList with QLIBCSzListFree().
 */
QORAPRINTER_API int QORAPrinterEnumCount(int iFlags, PQLIBSZLIST *ppList);

/* USB printer attach (iAction non-zero) and detach (iAction 0). */
/*
 * USB hot-plug.  Attach (iAction non-zero; szDevName and a non-empty szBusId
 * required): under the lock LOCK_USBIDMAP adds szDevName with its bus ID to
 * /tmp/usbtab, forms the printer ID (the USB library's, else
 * vendor:product:serial), reads the device ID string and writes the printer's
 * section of printer.conf (QORAPrinterConfSetup()); then sends the driver's
 * enable notice and makes sure the Samba [printers] section exists.  At most
 * two printers: a third device is refused, logged, with result 0.
 * Detach (iAction 0): removes the usbtab line of szDevName (szBusId NULL or
 * empty), or every line whose bus ID starts with szBusId; sends the driver's
 * disable notice when the node opens.  The printer.conf section is kept.
 * Returns 0 or -1.  Errors: 0x0D00 (bad arguments, not logged), 0x0400
 * (LOCK_USBIDMAP not taken: nothing changed), 0x0500 (lock not released; the
 * result is unchanged), otherwise the code of the failed step (logged).
 */
QORAPRINTER_API int QORAPrinterEnableExt(int iAction, const char *szDevName, const char *szBusId);

/* Print share. */
/*
 * Tells whether the print share is set up: the [printers] section of
 * /etc/samba/smb.reserved.conf holds at least 8 entries.
 * Returns 1 for yes, 0 for no and on any failure (0x0200 out of memory is the
 * only code it sets).  Writes nothing.
 */
QORAPRINTER_API int QORAPrinterIsActive(void);

/* CUPS queues. */
/*
 * Asks the print service (lpstat -v, up to 3 runs 1 s apart) whether a queue
 * named szCupsPrinterName exists and belongs to szPrinterId: the first
 * listing line holding the name (as a substring) decides.
 * Returns 1 (exists, its line holds the printer ID), 2 (exists, belongs to
 * something else), 0 (no such queue, or cupsd not running: logged), -1.
 * Errors: 0x0D00 (NULL or empty argument, logged), 0x2A00 (the listing could
 * not be read three times).
 */
QORAPRINTER_API int QORAPrinterCupsNameCheck(const char *szPrinterId, const char *szCupsPrinterName);
/*
 * Starts (blEnable non-zero: cupsenable) or stops (0: cupsdisable) the queue
 * szCupsPrinterName (cut to 127 characters); "usbprinter1", in any case, also
 * switches its twin "usbprinter" afterwards.
 * Returns 0 or -1.  Errors: 0x0D00 (NULL or empty name, not logged); a failing
 * tool is logged and sets no code.
 */
QORAPRINTER_API int QORAPrinterCupsPrinterEnable(const char *szCupsPrinterName, int blEnable);
/*
 * Reads the whole file /etc/cups/ppd/<szName>.ppd (szName a queue name or a
 * printer ID).
 * Returns a malloc'd NUL-terminated copy of the text, or NULL: szName NULL
 * (0x0D00), file missing or unreadable (0x0900), an empty file, or out of
 * memory.  A read error inside the file sets 0x0A00 and returns the text read
 * so far.  Logs nothing.
 * Frees: the caller frees the result with free().
 */
QORAPRINTER_API char *QORACupsGetPPD(const char *szName);
/*
 * Creates the CUPS queue of the USB printer szPrinterId: starts cupsd if
 * needed, keeps an existing queue of the printer, else takes the first free
 * name of "usbprinter1" and "usbprinter2" and stores it as "cups printer name"
 * in printer.conf (under the configuration lock), copies szPpdFile (may be
 * NULL or empty: the kept copy /etc/cups/ppd/<printer ID>.ppd is used when it
 * exists) to that kept copy, and runs lpadmin with the device URI
 * usb:/dev/usb/<printer ID> (3 tries, 2 s apart); "usbprinter1" gets its twin
 * "usbprinter".  The new queue is left stopped: start it with
 * QORAPrinterCupsPrinterEnable().
 * Returns 0 or -1.  Errors: 0x0D00 (szPrinterId NULL or empty), the code of
 * a failed service start; both names in use, a missing PPD file or lpadmin
 * failing 3 times fail with a message and no code of their own.
 */
QORAPRINTER_API int QORAPrinterCupsAdd(const char *szPrinterId, const char *szPpdFile);
/*
 * Creates the CUPS queue of the network printer *pNPConf, named by its
 * szCupsPrinterName, with the device URI <backend>://<address>/<queue> built
 * from its szBackend, szIP and szQName, and the PPD szPpdFile (NULL or empty:
 * the kept copy of its printer ID); starts cupsd if needed; lpadmin 3 tries,
 * 2 s apart.  pNPConf is only read.
 * Returns 0 or -1.  Errors: 0x0D00 (pNPConf NULL, logged), the code of a failed
 * service start; an empty queue name, a missing PPD file or lpadmin failing
 * are logged without a code.
 */
QORAPRINTER_API int QORAPrinterNetCupsAdd(const PrinterNetConf *pNPConf, const char *szPpdFile);
/*
 * Removes the CUPS queue of the USB printer szPrinterId: its stored "cups
 * printer name", if QORAPrinterCupsNameCheck() confirms it belongs to the
 * printer, through QORAPrinterCupsRmByName().
 * Returns that function's result, or -1.  Errors: 0x0D00 (NULL or empty
 * argument, not logged), otherwise as the lookup, the check or the removal
 * left it.
 */
QORAPRINTER_API int QORAPrinterCupsRm(const char *szPrinterId);
/*
 * Removes the queue szCupsPrinterName (lpadmin -x); "usbprinter1" also removes
 * its twin "usbprinter".
 * Returns 0 or -1 (a run that could not be started or died).  Errors: 0x0D00
 * (NULL or empty name, logged), or the code of the failed run.
 */
QORAPRINTER_API int QORAPrinterCupsRmByName(const char *szCupsPrinterName);
/*
 * Removes the queue of the network printer szPrinterId: its stored "cups
 * printer name", through QORAPrinterCupsRmByName().
 * Returns that function's result, or -1.  Errors: 0x0D00 (NULL or empty
 * argument, logged), or the lookup's code.
 */
QORAPRINTER_API int QORAPrinterNetCupsRm(const char *szPrinterId);
/*
 * Removes the USB printer queues (usbprinter, usbprinter1, usbprinter2) from
 * /etc/cups/printers.conf by rewriting the file; only while cupsd is stopped.
 * A missing file is no failure.
 * Returns 0 or -1.  Errors: 0xD000 (cupsd running, logged), 0x0900 (a file
 * could not be opened), 0x0B00 (a line could not be written: file unchanged),
 * 0x2800 (the rewritten file could not replace the old one).
 */
QORAPRINTER_API int QORAPrinterCupsUsbConfRmAll(void);
/*
 * Prints szFile on the queue stored for szPrinterId (lpr), with the job title
 * szTitle (NULL or empty: none); blRemove 1 has lpr delete the file once
 * submitted.
 * Returns 0 or -1.  Errors: 0x0D00 (szPrinterId or szFile NULL, not logged),
 * the lookup's code (no stored queue), 0x2A00 (lpr failed, logged).
 */
QORAPRINTER_API int QORAPrinterCupsPrintFile(const char *szPrinterId, const char *szFile, const char *szTitle,
                                             int blRemove);
/*
 * Prints the test page /usr/share/cups/data/testprint on the printer's queue
 * (QORAPrinterCupsPrintFile()).
 * Returns 0 or -1.  Errors: 0x0D00 (NULL or empty printer ID, not logged), or
 * as QORAPrinterCupsPrintFile() set it.
 */
QORAPRINTER_API int QORAPrinterCupsPrintTestPage(const char *szPrinterId);
/*
 * Looks once whether job szJobId is still in the queue of szPrinterId (lpq);
 * it does not wait: callers poll it.
 * Returns 1 as soon as a listing line names the job (still queued), 0 after a
 * complete listing without it, -1 on failure.  A listing that fails to read
 * is run again 1 s later, at most 5 listings.
 * Errors: 0x0D00 (a NULL argument, not logged), the lookup's code (no stored
 * queue), the code of an lpq that could not be started; cupsd not running
 * fails with a message and no code.
 */
QORAPRINTER_API int QORAPrinterCupsJobWaitComplete(const char *szPrinterId, const char *szJobId);
/*
 * Cancels every job (lprm all; a failure is only logged) and removes the
 * files of the spool directory /var/services/printer.
 * Returns 0 or -1 (the removal failed; logged with the run's code).
 */
QORAPRINTER_API int QORAPrinterCleanSpool(void);

/* Network printers. */
/*
 * Appends to the caller's list *ppList the printer ID ("<address>-<queue
 * name>") of every network printer in /usr/qora/etc/nptab.
 * Returns 0 (also when the table is missing, leaving 0x0900 in the slot, or
 * empty), -1 on failure; the first malformed line ends the enumeration with
 * -1 after the entries before it were appended.
 * Errors: 0x0D00 (ppList NULL, logged), 0x0100 (a printer ID longer than 1023
 * characters), 0x0200 (out of memory).
 * Frees: the list stays the caller's (QLIBCSzListFree()).
 */
QORAPRINTER_API int QORAPrinterNetNptabEnum(PQLIBSZLIST *ppList);
/*
 * Adds (iAction non-zero) or removes (0) the nptab entry of the network
 * printer *pNPConf (its szIP and szCupsPrinterName); after an addition makes
 * sure the Samba [printers] section exists.  pNPConf is only read.
 * Returns 0 or -1 (a failed share step after an addition leaves the entry
 * written).  Errors: 0x0D00 (pNPConf NULL, logged), 0x0200, 0x2000 (a listed
 * key without value), 0x3900 (a key could not be removed), or the core
 * library's code of a failed write (logged).
 */
QORAPRINTER_API int QORAPrinterNetUpdateConf(int iAction, const PrinterNetConf *pNPConf);
/*
 * Walks the printer at szIP over SNMP (snmpwalk -v 1, the enterprises
 * subtree) and copies the first device ID string value it finds into
 * szOutBuf (iOutSize bytes).
 * Returns 0 (found), 1 (the walk printed nothing), -1 (failure, or lines read
 * but none held a device ID); szOutBuf holds "" on every result but 0.
 * Errors: 0x0D00 (NULL or empty szIP, NULL szOutBuf, iOutSize not positive;
 * logged), 0xBF00 (the value does not fit), the code of a tool that could not
 * be started.
 */
QORAPRINTER_API int QORAPrinterNetGetStringId(const char *szIP, char *szOutBuf, int iOutSize);
/*
 * Walks the printer at szIP over SNMP for its first printer URI and writes the
 * backend ("lpd" for LPR or lpd, "ipp", "socket", "bjnp") into szBackend
 * (iBackendSize bytes) and the queue name on the printer into szQName
 * (iQNameSize bytes).
 * Returns 0 (found), 1 (no URI in the walk), -1 (failure, or a scheme not in
 * that list: logged).
 * Errors: 0x0D00 (a NULL argument; logged), 0x0200 (out of memory), the code
 * of a tool that could not be started.
 */
QORAPRINTER_API int QORAPrinterNetGetStringBackend(const char *szIP, char *szBackend, int iBackendSize, char *szQName,
                                                   int iQNameSize);
/*
 * Identifies the printer at szIP over SNMP: backend and queue
 * (QORAPrinterNetGetStringBackend()), device ID string
 * (QORAPrinterNetGetStringId()), maker and model from it; clears *pNPInfo,
 * then fills szBackend, szQName, szStringId, szVendor and szModel.
 * Returns 0, or -1 at the first step that fails (logged with the lower
 * code; fields already filled keep their values).  Errors: 0x0D00 (NULL szIP or
 * pNPInfo), or as the failing step left it.
 */
QORAPRINTER_API int QORAPrinterNetInfoGetByIP(const char *szIP, PrinterNetInfo *pNPInfo);
/*
 * Writes the network printer's section of printer.conf, named by
 * pNPConf->szPrinterId, as QORAPrinterConfSetup() does for USB printers: keys
 * "IP", "cups printer name", "Backend", "QName", "Brand", "Model", "enable
 * airprint", "enable google cloud print", "driver brand", "driver",
 * "string id", "fit to page"; bForce also stores empty driver keys.
 * pNPConf is only read.
 * Returns 0 or -1.  Errors: 0x0D00 (pNPConf NULL, logged), 0x0200, 0x0400
 * (lock not taken: nothing written), or the core library's code of a failed
 * write (logged).
 */
QORAPRINTER_API int QORAPrinterNetConfSetup(const PrinterNetConf *pNPConf, int bForce);
/*
 * Tells whether a CUPS queue's device URI holds the address szIP (as
 * "/<address>/"), from lpstat -v (up to 3 runs).
 * Returns 0 when one does, 1 when none does (also when cupsd is not running
 * or no printer exists), -1 on failure.  Errors: 0x0D00 (NULL or empty szIP,
 * logged), 0x2A00 (three failed listings), or the count's code.
 */
QORAPRINTER_API int QORAPrinterNetIPCheck(const char *szIP);
/*
 * Tells whether the queue szCupsPrinterName exists and its device URI holds
 * szIP.
 * Returns 1 (exists and holds it), 2 (exists, another address), 0 (no such
 * queue, cupsd not running, or no printer exists), -1 on failure.  Errors as
 * QORAPrinterNetIPCheck().
 */
QORAPRINTER_API int QORAPrinterNetCupsNameAndIPCheck(const char *szIP, const char *szCupsPrinterName);
/*
 * Pings szIP for at most one second and writes "Online" or "Offline" into
 * szStatus (cbStatus bytes).
 * Returns 0 (szStatus holds the answer) or -1 (szStatus holds "Offline" after
 * interrupted reads).  Errors: 0x0D00 (bad argument, logged), 0x0900 (ping
 * could not be started).
 */
QORAPRINTER_API int QORAPrinterNetPingStatus(const char *szIP, char *szStatus, int cbStatus);
/*
 * Identifies the printer at szIP through the BJNP backend's discovery
 * listing (up to 3 runs, 1 s apart): fills pNPInfo->szBackend ("bjnp"),
 * szVendor, szModel and szStringId; other fields are left as they were.
 * Returns 0 (found), 1 (the address is not listed, or listed as unknown), -1.
 * Errors: 0x0D00 (bad argument), 0x2600 (no maker in the device ID string,
 * logged), 0x2A00 (three failed runs).
 */
QORAPRINTER_API int QORAPrinterNetBjnpInfoGet(const char *szIP, PrinterNetInfo *pNPInfo);
/*
 * Identifies the printer at szIP from an mDNS browse (avahi-browse; starts the
 * mDNS daemon when none runs): the record of the address on port 8611, else
 * 9100, 515, 631 gives the backend ("bjnp", "socket", "lpd", "ipp") and its
 * TXT items the maker and model ("Not Found" when missing) and a device ID
 * string built from them; fills pNPInfo->szBackend, szVendor, szModel and
 * szStringId only.
 * Returns 0 (found), 1 (no record of the address on those ports), -1.
 * Errors: 0x0D00 (bad argument), 0x0200 (out of memory), the code of a tool
 * that could not be started or a failed split.
 */
QORAPRINTER_API int QORAPrinterNetAvahiInfoGet(const char *szIP, PrinterNetInfo *pNPInfo);

/* USB/IP sharing. */
/*
 * Ejects the USB/IP-shared printer szPrinterId (bind_driver -z).
 * Returns 0 when the tool succeeded, -1 otherwise.  Errors: 0x0D00 (NULL or
 * empty argument, not logged); a failing tool sets no code.
 */
QORAPRINTER_API int QORAPrinterUsbipEject(const char *szPrinterId);
/*
 * Writes the "LOCK" value of /tmp/usbip_<szPrinterId> into szBuf (cbBuf
 * bytes); "Free" when it cannot be read.
 * Returns 0, or -1 on a bad argument (0x0D00, not logged).
 */
QORAPRINTER_API int QORAPrinterUsbipGetLockStatus(const char *szPrinterId, char *szBuf, int cbBuf);
/*
 * Releases the USB/IP lock of szPrinterId (bind_driver -p ID -0 0 -n USBIP).
 * Returns 0 when the tool succeeded, -1 otherwise.  Errors: 0x0D00 (NULL or
 * empty argument, not logged).
 */
QORAPRINTER_API int QORAPrinterUsbipLockRelease(const char *szPrinterId);
/*
 * Writes the "QUEUE" value of /tmp/usbip_<szPrinterId> into szBuf (cbBuf
 * bytes), its parenthesised part rewritten to start "(CUPS Jobs" when it can
 * be (else passed on as read, logged).
 * Returns 0, or -1 (bad argument: 0x0D00, logged; value unreadable: logged).
 */
QORAPRINTER_API int QORAPrinterQueueGet(const char *szPrinterId, char *szBuf, int cbBuf);

/* Cloud print account. */
/*
 * Fills *pInfo from the "Google Cloud Print" section of printer.conf: the
 * account, and the deciphered password or refresh token (whichever is
 * stored).  The record is cleared first.
 * Returns 0 when the account and one secret were read, -1 otherwise.
 * Errors: 0x0D00 (pInfo NULL), 0x0200, the core library's code of a failed
 * decipherment (logged); no account or no secret fail without a code.
 */
QORAPRINTER_API int QORAPrinterGoogleInfoGet(PrinterGoogleInfo *pInfo);
/*
 * Stores *pInfo in the "Google Cloud Print" section of printer.conf under the
 * configuration lock: the account, and the secrets enciphered; storing a
 * refresh token removes the stored password.  pInfo is only read.
 * Returns 0, or -1 (or the negative result of the section append).
 * Errors: 0x0D00 (pInfo NULL), 0x0200, 0x0400 (lock not taken); an empty
 * account or a failed encipherment is logged and leaves the file untouched.
 */
QORAPRINTER_API int QORAPrinterGoogleInfoSet(const PrinterGoogleInfo *pInfo);

#ifdef __cplusplus
}
#endif
#endif /* QORAPRINTER_H */
