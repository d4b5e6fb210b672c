/*
 * qoracore.h - the appliance core library: error slot, key-value and section
 * files, locks, string containers and helpers, running programs, secrets.
 */
#ifndef QORACORE_H
#define QORACORE_H

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(QORACORE_BUILD)
#define QLIBC_API __attribute__((visibility("default")))
#else
#define QLIBC_API
#endif

/* Error codes recorded in the error slot. */
#define ERR_NAME_TOO_LONG      0x0100u
#define ERR_OUT_OF_MEMORY      0x0200u
#define ERR_LOCK_FAILED        0x0400u
#define ERR_UNLOCK_FAILED      0x0500u
#define ERR_OPEN_FAILED        0x0900u
#define ERR_READ_FAILED        0x0A00u
#define ERR_WRITE_FAILED       0x0B00u
#define ERR_BAD_PARAMETER      0x0D00u
#define ERR_KEY_NOT_FOUND      0x2000u
#define ERR_FIELD_NOT_FOUND    0x2600u
#define ERR_RENAME_FAILED      0x2800u
#define ERR_EXTERNAL_FAILED    0x2A00u
#define ERR_REMOVE_KEY_FAILED  0x3900u
#define ERR_VALUE_TOO_LONG     0xBF00u
#define ERR_SERVICE_RUNNING    0xD000u

/* ---- Error slot (one per thread) ---------------------------------------- */
QLIBC_API void QLIBCErrSetEx(unsigned int uCode, const char *szFile, int iLine);
QLIBC_API unsigned int QLIBCErrGet(void);
QLIBC_API const char *QLIBCErrorGetFile(void);
QLIBC_API int QLIBCErrorGetLine(void);

/* ---- String list and string hash ----------------------------------------- */
typedef struct QLIBSZLIST {
    int nAlloc;
    int nItem;
    char **pszItem;
} QLIBSZLIST, *PQLIBSZLIST;

typedef struct QLIBSZHASH *PQLIBSZHASH; /* opaque; keys kept in insertion order */

QLIBC_API PQLIBSZLIST QLIBCSzListAlloc(int nAlloc);
QLIBC_API void QLIBCSzListFree(PQLIBSZLIST pList);
QLIBC_API int QLIBCSzListPush(PQLIBSZLIST *ppList, const char *sz);
QLIBC_API const char *QLIBCSzListGet(PQLIBSZLIST pList, int i);

QLIBC_API PQLIBSZHASH QLIBCSzHashAlloc(int nAlloc);
QLIBC_API void QLIBCSzHashFree(PQLIBSZHASH pHash);
QLIBC_API int QLIBCSzHashSetValue(PQLIBSZHASH *ppHash, const char *szKey, const char *szValue);
QLIBC_API const char *QLIBCSzHashGetValue(PQLIBSZHASH pHash, const char *szKey);
QLIBC_API int QLIBCSzHashRemoveKey(PQLIBSZHASH pHash, const char *szKey);
QLIBC_API int QLIBCSzHashEnumKey(PQLIBSZHASH pHash, PQLIBSZLIST *ppList);
QLIBC_API int QLIBCSzHashCount(PQLIBSZHASH pHash);

/* ---- Key-value files: lines key="value" ------------------------------------ */
QLIBC_API int QLIBCFileGetKeyValue(const char *szFile, const char *szKey, char *szBuf, int cbBuf, int iFlags);
QLIBC_API int QLIBCFileSetKeyValue(const char *szFile, const char *szKey, const char *szValue, const char *szFormat);
QLIBC_API int QLIBCFileRemoveKey(const char *szFile, const char *szKey);
QLIBC_API int QLIBCFileGetPair(const char *szFile, PQLIBSZHASH *ppHash);

/* ---- Section files: [name] then "\tkey = value" lines ---------------------- */
QLIBC_API int QLIBCFileGetSection(const char *szFile, const char *szSection, PQLIBSZHASH *ppHash);
QLIBC_API int QLIBCFileAddSection(const char *szFile, const char *szSection, PQLIBSZHASH pHash, const char *szFormat);
QLIBC_API int QLIBCFileSetSection(const char *szFile, const char *szSection, const char *szNewSection,
                                  PQLIBSZHASH pHash, const char *szFormat);
QLIBC_API int QLIBCFileGetSectionValue(const char *szFile, const char *szSection, const char *szKey,
                                       char *szBuf, int cbBuf);
QLIBC_API int QLIBCFileSetSectionValue(const char *szFile, const char *szSection, const char *szKey,
                                       const char *szValue);

/* ---- Other file operations -------------------------------------------------- */
QLIBC_API int QLIBCFileExist(const char *szPath);
QLIBC_API FILE *QLIBCFileTempFileOpen(char *szTemplate);
QLIBC_API int QLIBCFileLockByFile(const char *szFile, int iMode, int *pFd);

/* Named locks.  A request is the lock number or'ed with the wait mode. */
#define LOCK_USBIDMAP      0x20000u
#define LOCK_MODE_EX_WAIT  0x6u
QLIBC_API int QLIBCFileLock(unsigned int uRequest, int iWaitLimit);
QLIBC_API int QLIBCFileUnlock(unsigned int uLock);

/* ---- Strings ------------------------------------------------------------------ */
QLIBC_API void QLIBCStrTrim(char *sz, int iReserved1, int iReserved2);
QLIBC_API int QLIBCStrTok(const char *sz, const char *szDelim, PQLIBSZLIST *ppList);
QLIBC_API int QLIBCStrSep(const char *sz, const char *szSep, PQLIBSZLIST *ppList);
QLIBC_API void QLIBCStrCaseLower(const char *szSrc, int iReserved, char *szBuf, int cbBuf);
QLIBC_API int QLIBCStrCat(char **ppBuf, int *pcbBuf, const char *sz);
QLIBC_API int QLIBCStrReplace(const char *szSrc, const char *szPattern, const char *szReplace,
                              char *szBuf, int cbBuf);

/* ---- Programs and processes ------------------------------------------------------ */
QLIBC_API int QLIBCExec(const char *szPath, const char *szArg1, const char *szArg2, const char *szArg3,
                        const char *szArg4);
QLIBC_API int QLIBCExecl(const char *szPath, int iOptions, ...);
QLIBC_API int QLIBCExecv(const char *szPath, char *const argv[], int iOptions);
QLIBC_API FILE *QLIBCPopen(const char *szPath, const char *szMode, ...);
QLIBC_API int QLIBCPclose(FILE *fp);
QLIBC_API int QLIBCIsProcAlive(const char *szName);

/* ---- Secrets ----------------------------------------------------------------------- */
QLIBC_API int QLIBCCryptSzEncrypt(const char *szPlain, char *szBuf, int cbBuf);
QLIBC_API int QLIBCCryptSzDecrypt(const char *szStored, char *szBuf, int cbBuf);

#ifdef __cplusplus
}
#endif
#endif /* QORACORE_H */
