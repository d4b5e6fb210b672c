/*
 * qoraprinter.h - printer management for the storage appliance.
 *
 * Plain C interface.  Every function checks its arguments first, reports a
 * failure through its result, an error code in the core library's error slot
 * (QLIBCErrGet, QLIBCErrorGetFile, QLIBCErrorGetLine) and one syslog line.
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
QORAPRINTER_API int QORAPrinterPrinterConfLock(void);
QORAPRINTER_API int QORAPrinterPrinterConfUnlock(int fdLock);
QORAPRINTER_API int QORAPrinterConfSetup(const PrinterConf *pConf, int bForce);
QORAPRINTER_API int QORAPrinterCupsNameGet(const char *szPrinterId, char *szBuf, int cbBuf);

/* Device ID strings. */
QORAPRINTER_API int QORAPrinterConfStringIdParse(char *szStringId, const char *szType, char *szBuf, int cbBuf);
QORAPRINTER_API int QORAPrinterConfStringIdGetVendor(char *szStringId, char *szBuf, int cbBuf);
QORAPRINTER_API int QORAPrinterConfStringIdGetModel(char *szStringId, char *szBuf, int cbBuf);
QORAPRINTER_API int QORAPrinterConfStringIdGetCmd(char *szStringId, char *szBuf, int cbBuf);
QORAPRINTER_API int QORAPrinterModelDetect(PrinterConf *pConf);

/* USB printer device access. */
QORAPRINTER_API int QORAPrinterDevOpen(const char *szDevName, int iRetry);
QORAPRINTER_API int QORAPrinterGetStringId(const char *szDevName, char *szBuf, int cbBuf);
QORAPRINTER_API int QORAResetPrinter(const char *szDevName);

/* USB printer table and printer enumerations. */
QORAPRINTER_API int QORAPrinterUsbtabEnum(char ***ppDevNames, int *piCount);
QORAPRINTER_API int QORAPrinterProcUsbtabIdEnum(PQLIBSZLIST *ppList);
QORAPRINTER_API int QORAPrinterEnumCount(int iFlags, PQLIBSZLIST *ppList);

/* USB printer attach (iAction non-zero) and detach (iAction 0). */
QORAPRINTER_API int QORAPrinterEnableExt(int iAction, const char *szDevName, const char *szBusId);

/* Print share. */
QORAPRINTER_API int QORAPrinterIsActive(void);

/* CUPS queues. */
QORAPRINTER_API int QORAPrinterCupsNameCheck(const char *szPrinterId, const char *szCupsPrinterName);
QORAPRINTER_API int QORAPrinterCupsPrinterEnable(const char *szCupsPrinterName, int blEnable);
QORAPRINTER_API char *QORACupsGetPPD(const char *szName);
QORAPRINTER_API int QORAPrinterCupsAdd(const char *szPrinterId, const char *szPpdFile);
QORAPRINTER_API int QORAPrinterNetCupsAdd(const PrinterNetConf *pNPConf, const char *szPpdFile);
QORAPRINTER_API int QORAPrinterCupsRm(const char *szPrinterId);
QORAPRINTER_API int QORAPrinterCupsRmByName(const char *szCupsPrinterName);
QORAPRINTER_API int QORAPrinterNetCupsRm(const char *szPrinterId);
QORAPRINTER_API int QORAPrinterCupsUsbConfRmAll(void);
QORAPRINTER_API int QORAPrinterCupsPrintFile(const char *szPrinterId, const char *szFile, const char *szTitle,
                                             int blRemove);
QORAPRINTER_API int QORAPrinterCupsPrintTestPage(const char *szPrinterId);
QORAPRINTER_API int QORAPrinterCupsJobWaitComplete(const char *szPrinterId, const char *szJobId);
QORAPRINTER_API int QORAPrinterCleanSpool(void);

/* Network printers. */
QORAPRINTER_API int QORAPrinterNetNptabEnum(PQLIBSZLIST *ppList);
QORAPRINTER_API int QORAPrinterNetUpdateConf(int iAction, const PrinterNetConf *pNPConf);
QORAPRINTER_API int QORAPrinterNetGetStringId(const char *szIP, char *szOutBuf, int iOutSize);
QORAPRINTER_API int QORAPrinterNetGetStringBackend(const char *szIP, char *szBackend, int iBackendSize,
                                                   char *szQName, int iQNameSize);
QORAPRINTER_API int QORAPrinterNetInfoGetByIP(const char *szIP, PrinterNetInfo *pNPInfo);
QORAPRINTER_API int QORAPrinterNetConfSetup(const PrinterNetConf *pNPConf, int bForce);
QORAPRINTER_API int QORAPrinterNetIPCheck(const char *szIP);
QORAPRINTER_API int QORAPrinterNetCupsNameAndIPCheck(const char *szIP, const char *szCupsPrinterName);
QORAPRINTER_API int QORAPrinterNetPingStatus(const char *szIP, char *szStatus, int cbStatus);
QORAPRINTER_API int QORAPrinterNetBjnpInfoGet(const char *szIP, PrinterNetInfo *pNPInfo);
QORAPRINTER_API int QORAPrinterNetAvahiInfoGet(const char *szIP, PrinterNetInfo *pNPInfo);

/* USB/IP sharing. */
QORAPRINTER_API int QORAPrinterUsbipEject(const char *szPrinterId);
QORAPRINTER_API int QORAPrinterUsbipGetLockStatus(const char *szPrinterId, char *szBuf, int cbBuf);
QORAPRINTER_API int QORAPrinterUsbipLockRelease(const char *szPrinterId);
QORAPRINTER_API int QORAPrinterQueueGet(const char *szPrinterId, char *szBuf, int cbBuf);

/* Cloud print account. */
QORAPRINTER_API int QORAPrinterGoogleInfoGet(PrinterGoogleInfo *pInfo);
QORAPRINTER_API int QORAPrinterGoogleInfoSet(const PrinterGoogleInfo *pInfo);

#ifdef __cplusplus
}
#endif
#endif /* QORAPRINTER_H */
