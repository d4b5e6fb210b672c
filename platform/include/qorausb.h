/* qorausb.h - the appliance USB library: attached USB devices. */
#ifndef QORAUSB_H
#define QORAUSB_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(QORAUSB_BUILD)
#define QORAUSB_API __attribute__((visibility("default")))
#else
#define QORAUSB_API
#endif

/* Device type flags. */
#define QORAUSB_TYPE_PRINTER_UNI 0x04u
#define QORAUSB_TYPE_PRINTER_BI 0x08u
#define QORAUSB_TYPE_PRINTER (QORAUSB_TYPE_PRINTER_UNI | QORAUSB_TYPE_PRINTER_BI)
#define QORAUSB_TYPE_STORAGE 0x01u
#define QORAUSB_TYPE_OTHER 0x80u

typedef struct QORAUSB_DEV_INFO {
    unsigned char ucType; /* QORAUSB_TYPE_* flags */
    unsigned char ucBusNum;
    unsigned char ucDevNum;
    unsigned char ucReserved;
    unsigned long ulVendorId;
    unsigned long ulProductId;
    char szDevName[32]; /* the usbtab key, e.g. lp0 */
    char szBusId[64];   /* the sysfs bus ID, e.g. 1-1.2 */
    char szManufacturer[128];
    char szProduct[128];
    char szSerial[128];
    char szPrinterId[256]; /* empty when none is known */
} QORAUSB_DEV_INFO, *PQORAUSB_DEV_INFO;

/*
 * Lists the devices whose type shares a bit with uTypeMask.  With pBuf NULL
 * and cbBuf 0 stores the size the list needs in *pcbNeeded; with a buffer of
 * that size fills it with an array of char* followed by the names, and returns
 * their number.  Negative on failure (a buffer smaller than needed:
 * ERR_BAD_PARAMETER).  Devices are the "lp*" keys of /tmp/usbtab in file
 * order; one is listed only when its sysfs directory can be read now and its
 * type shares a bit with the mask.  No usbtab: no devices.
 */
QORAUSB_API int QORAUSBDevEnum(unsigned int uTypeMask, void *pBuf, int cbBuf, int *pcbNeeded);
/*
 * Fills a cleared record for a device name; negative on failure (error slot
 * set): name not in usbtab, bus ID unusable ('/', "..") or its sysfs
 * directory missing.  Missing attributes leave 0 or "".  Type: PRINTER_BI
 * when an interface has class 07, STORAGE for class 08, else OTHER.  The
 * printer ID is "%04lx:%04lx:%s" (vendor, product, serial) when the serial
 * is known and both IDs are non-zero, else "".
 */
QORAUSB_API int QORAUSBDevGetInfo(const char *szDevName, PQORAUSB_DEV_INFO pInfo);

#ifdef __cplusplus
}
#endif
#endif /* QORAUSB_H */
