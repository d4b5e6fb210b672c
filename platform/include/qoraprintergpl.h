/* qoraprintergpl.h - the appliance printer helper library. */
#ifndef QORAPRINTERGPL_H
#define QORAPRINTERGPL_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(QORAPRINTERGPL_BUILD)
#define QORAPRINTERGPL_API __attribute__((visibility("default")))
#else
#define QORAPRINTERGPL_API
#endif

/* Copies the printer's stored device ID string; 0 on success. */
QORAPRINTERGPL_API int QORAPrinterGPLConfStringIdGet(const char *szPrinterId, char *szBuf, int cbBuf, int iFlags);

#ifdef __cplusplus
}
#endif
#endif /* QORAPRINTERGPL_H */
