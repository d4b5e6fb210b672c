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
#define ERR_NAME_TOO_LONG 0x0100u
#define ERR_OUT_OF_MEMORY 0x0200u
#define ERR_LOCK_FAILED 0x0400u
#define ERR_UNLOCK_FAILED 0x0500u
#define ERR_OPEN_FAILED 0x0900u
#define ERR_READ_FAILED 0x0A00u
#define ERR_WRITE_FAILED 0x0B00u
#define ERR_BAD_PARAMETER 0x0D00u
#define ERR_KEY_NOT_FOUND 0x2000u
#define ERR_FIELD_NOT_FOUND 0x2600u
#define ERR_RENAME_FAILED 0x2800u
#define ERR_EXTERNAL_FAILED 0x2A00u
#define ERR_SIGCHLD_IGNORED 0x2B00u /* a program run refused: the caller ignores SIGCHLD */
#define ERR_REMOVE_KEY_FAILED 0x3900u
#define ERR_VALUE_TOO_LONG 0xBF00u
#define ERR_SERVICE_RUNNING 0xD000u

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

/*
 * Text files below are rewritten crash-safely: writers of one file serialise
 * on an flock of the sidecar file ".<name>.lock" (mode 0600) in the same
 * directory, waiting at most 30 s (then ERR_LOCK_FAILED), read the current
 * content under it, write a temporary file beside the target (owner and mode
 * of the old file; 0644 for a new one), fsync it and rename it over the
 * target.  Readers take no lock and see the old or the new file.  Lines a
 * writer does not change are kept byte for byte.  No link is written
 * through: a link at the name is read and then replaced by a file.
 * In a directory that others may write (or that root does not own), such as
 * /tmp, a file counts only when it is a regular file of root's, not writable
 * by group or others, with one link: anything else (link, FIFO, a user's
 * file) reads as missing and is replaced by a root file with mode 0644; a
 * file there over 1 MiB fails to read (ERR_READ_FAILED); and the sidecar lock
 * lives in /run/qorasdk/lock instead.  A directory at a name is an error.
 *
 * Keys, values and section names are written with every control byte except
 * tab (so CR and LF too) replaced by a blank, so a value can never start a
 * line, section or key of its own.  A key that is empty, holds '=' or starts
 * with '[' (in section files also '#' or ';') is refused: negative result,
 * ERR_BAD_PARAMETER, file untouched.  A line format must hold exactly two
 * "%s" ("%%" allowed); NULL means the usual format.
 */

/* ---- Key-value files: lines key="value" ------------------------------------ */
/*
 * A line is split at its first '='; blanks around key and value and one pair
 * of double quotes around the value are dropped; lines without '=' or with an
 * empty key are no entries.  The first line of a key is the one read.
 * GetKeyValue: the copied length (cut to cbBuf), negative when the key or the
 *   file is missing (ERR_KEY_NOT_FOUND / ERR_OPEN_FAILED).
 * GetPair: number of keys read into the hash, negative when there is no file.
 * SetKeyValue: 0; replaces the key's first line (later lines of the key go)
 *   or appends one, creating the file.  RemoveKey: 0, also when the key or
 *   the file is missing; removes every line of the key.
 */
QLIBC_API int QLIBCFileGetKeyValue(const char *szFile, const char *szKey, char *szBuf, int cbBuf, int iFlags);
QLIBC_API int QLIBCFileSetKeyValue(const char *szFile, const char *szKey, const char *szValue, const char *szFormat);
QLIBC_API int QLIBCFileRemoveKey(const char *szFile, const char *szKey);
QLIBC_API int QLIBCFileGetPair(const char *szFile, PQLIBSZHASH *ppHash);

/* ---- Section files: [name] then "\tkey = value" lines ---------------------- */
/*
 * A header is a line that, trimmed, starts with '[' and ends with ']'; names
 * compare exactly (case and blanks count).  Entries split at the first '=',
 * trimmed.  Blank lines, comments (# or ;) and other lines are no entries.
 * When a name occurs twice the first section is the one read and written.
 * GetSection: number of entries read (0: no such section or no entries),
 *   negative with ERR_OPEN_FAILED when the file cannot be read.
 * AddSection: 1 when appended (file created if needed), 0 when a header of
 *   that name exists (nothing written), negative on failure.
 * SetSection: 1 when the section now holds exactly the hash's entries (and
 *   the new name); its comments and stray lines go, blank and comment lines
 *   at its end (introducing the next section) stay.  0 with
 *   ERR_BAD_PARAMETER when there is no such section or the new name is taken;
 *   negative when the file is missing or cannot be written.
 * GetSectionValue: the copied length, negative when not found.
 * SetSectionValue: 0; replaces the key's entry or adds it after the section's
 *   last entry; negative (ERR_BAD_PARAMETER) when the section does not exist.
 */
QLIBC_API int QLIBCFileGetSection(const char *szFile, const char *szSection, PQLIBSZHASH *ppHash);
QLIBC_API int QLIBCFileAddSection(const char *szFile, const char *szSection, PQLIBSZHASH pHash, const char *szFormat);
QLIBC_API int QLIBCFileSetSection(const char *szFile, const char *szSection, const char *szNewSection,
                                  PQLIBSZHASH pHash, const char *szFormat);
QLIBC_API int QLIBCFileGetSectionValue(const char *szFile, const char *szSection, const char *szKey, char *szBuf,
                                       int cbBuf);
QLIBC_API int QLIBCFileSetSectionValue(const char *szFile, const char *szSection, const char *szKey,
                                       const char *szValue);

/* ---- Other file operations -------------------------------------------------- */
QLIBC_API int QLIBCFileExist(const char *szPath);
QLIBC_API FILE *QLIBCFileTempFileOpen(char *szTemplate);
/*
 * LockByFile: mode 1 only (exclusive, never waits); creates the file (0600,
 * never through a link) and its directories; 1 with *pFd set when locked, 0
 * when another holder has it, negative on error.  Closing *pFd releases the
 * lock.  The directory must be the caller's (root's) and not writable by
 * group or others, or no one else could be kept from holding the lock: a
 * lock file elsewhere (/tmp) is refused with ERR_OPEN_FAILED.  A lock file
 * found with a wider mode is narrowed to 0600.
 */
QLIBC_API int QLIBCFileLockByFile(const char *szFile, int iMode, int *pFd);

/*
 * Named locks (files 0600 in /run/qorasdk/lock).  A request is the lock
 * number or'ed with the wait mode.
 * QLIBCFileLock polls every 10 ms for up to iWaitLimit seconds: 0 when taken,
 * non-zero with ERR_LOCK_FAILED when not.  The lock belongs to the process
 * until QLIBCFileUnlock (non-zero with ERR_UNLOCK_FAILED when not held); a
 * second thread of the process waits like another process would.
 */
#define LOCK_USBIDMAP 0x20000u
#define LOCK_MODE_EX_WAIT 0x6u
QLIBC_API int QLIBCFileLock(unsigned int uRequest, int iWaitLimit);
QLIBC_API int QLIBCFileUnlock(unsigned int uLock);

/* ---- Strings ------------------------------------------------------------------ */
QLIBC_API void QLIBCStrTrim(char *sz, int iReserved1, int iReserved2);
QLIBC_API int QLIBCStrTok(const char *sz, const char *szDelim, PQLIBSZLIST *ppList);
QLIBC_API int QLIBCStrSep(const char *sz, const char *szSep, PQLIBSZLIST *ppList);
QLIBC_API void QLIBCStrCaseLower(const char *szSrc, int iReserved, char *szBuf, int cbBuf);
QLIBC_API int QLIBCStrCat(char **ppBuf, int *pcbBuf, const char *sz);
QLIBC_API int QLIBCStrReplace(const char *szSrc, const char *szPattern, const char *szReplace, char *szBuf, int cbBuf);

/* ---- Programs and processes ------------------------------------------------------ */
/*
 * Programs run by absolute path without a shell, every argument passed as it
 * is (no wildcard expansion): stdin on /dev/null, stderr on a pipe read
 * after the program ended (see QLIBCExecTakeFailure), stdout on /dev/null
 * (or the stream of QLIBCPopen), no other descriptor (all above 2
 * are closed in the child, close-on-exec or not), an empty signal mask and
 * default dispositions, the caller's environment without LANG and LC_* plus
 * LC_ALL=C.  Exec/Execl/Execv: 0 for exit status 0, the exit status when
 * non-zero (an answer, not a failure: the error slot is left alone), negative
 * with the slot set when the program could not start (-1) or was killed by a
 * signal (-(128 + signal)).
 * Every run is bounded to 120 s: a program still running then is killed
 * (-(128 + 9), ERR_EXTERNAL_FAILED, one LOG_ERR line).  A QLIBCPopen stream
 * ends after 16 MiB of output; the program is then killed and QLIBCPclose
 * fails the same way.  A caller whose SIGCHLD disposition is SIG_IGN (or
 * SA_NOCLDWAIT) gets -1 (NULL from QLIBCPopen) with ERR_SIGCHLD_IGNORED, and
 * the program is not run: its exit status could not be collected.
 * QLIBCPclose: the exit status (0 or more; a child ended by SIGPIPE because
 * the reader closed early counts as 0), negative when the child cannot be
 * waited for, a signal other than SIGPIPE ended it, or a bound cut it short.
 * QLIBCIsProcAlive: non-zero when a process of exactly that name runs and
 * belongs to root (zombies do not count; names past 15 bytes compare
 * argv[0]'s base name).  For "cupsd" and "avahi-daemon" the process must
 * also run /usr/sbin/<name>.  0 otherwise; the slot is set only for a bad
 * argument or when /proc cannot be listed.
 */
QLIBC_API int QLIBCExec(const char *szPath, const char *szArg1, const char *szArg2, const char *szArg3,
                        const char *szArg4);
QLIBC_API int QLIBCExecl(const char *szPath, int iOptions, ...);
QLIBC_API int QLIBCExecv(const char *szPath, char *const argv[], int iOptions);
QLIBC_API FILE *QLIBCPopen(const char *szPath, const char *szMode, ...);
QLIBC_API int QLIBCPclose(FILE *fp);
QLIBC_API int QLIBCIsProcAlive(const char *szName);
/*
 * The most recent failed program run (Exec/Execl/Execv, or a stream closed by
 * QLIBCPclose) of this process: its path, its result as those functions
 * returned it, and the first non-empty line it wrote to stderr (control bytes
 * as blanks; empty when it wrote none, strerror when it could not start).
 * Each buffer is filled cut to fit; any may be NULL.  1 when a failure was
 * recorded, 0 when none; reading clears the record.  A program that writes
 * more than a pipe holds (64 KiB) to stderr gets EAGAIN for the rest.
 */
QLIBC_API int QLIBCExecTakeFailure(char *szPath, int cbPath, int *piResult, char *szLine, int cbLine);

/* ---- Secrets ----------------------------------------------------------------------- */
/*
 * Authenticated encryption under the appliance key /usr/qora/etc/.qoracrypt.key
 * (created on first use, mode 0600, O_EXCL; a key file that is not a regular
 * file of root's, or that group or others may read, is refused and never
 * replaced), output URL-safe base64 without padding.  The Named forms bind the
 * value to the name it is stored under (associated data): it opens only under
 * that same name, so stored values cannot be swapped between names; the plain
 * forms use the empty name.  Non-zero on success; 0 for an empty secret, an
 * output that does not fit, a stored text that was changed or moved, or a
 * refused key.  A 255-byte secret takes 394 bytes + NUL.
 */
QLIBC_API int QLIBCCryptSzEncrypt(const char *szPlain, char *szBuf, int cbBuf);
QLIBC_API int QLIBCCryptSzDecrypt(const char *szStored, char *szBuf, int cbBuf);
QLIBC_API int QLIBCCryptSzEncryptNamed(const char *szName, const char *szPlain, char *szBuf, int cbBuf);
QLIBC_API int QLIBCCryptSzDecryptNamed(const char *szName, const char *szStored, char *szBuf, int cbBuf);

#ifdef __cplusplus
}
#endif
#endif /* QORACORE_H */
