/*
 * Strings, paths and times: small helpers that the rest of the library calls instead of platform functions.
 *
 * Texts are NUL-terminated and compared as bytes, with the case of ASCII letters only. Buffer sizes include
 * the NUL unless said otherwise. Functions work on their arguments alone and may run on several threads,
 * DayOfYear and SecondsBetween with the one effect that DayOfYear describes.
 */
#ifndef RDX_COMMON_PORTABILITY_H
#define RDX_COMMON_PORTABILITY_H

#include "common/export.h"
#include "common/log.h" /* Now2 */

#ifdef __cplusplus
extern "C" {
#endif

/* Size in bytes of a temporary file's name, the NUL included. */
enum { TEMP_FILE_NAME_SIZE = 256 };

/* Results of SplitEnvStr, MakeAbsolutePathName and TempFileName. */
enum {
    ENVSTR_SPLIT = 0,
    ENVSTR_NO_EQUAL_SIGN = -1,
    PATHNAME_MADE = 0,
    PATHNAME_TOO_LONG = -1,
    TEMPNAME_MADE = 0,
    TEMPNAME_NONE = -1,        /* no name could be made */
    TEMPNAME_TOO_LONG = -2,    /* it has a folder of its own, and is too long */
    TEMPNAME_TMP_TOO_LONG = -3 /* it is too long below "/tmp" */
};

/* Convert to upper or lower case in place. Return `s`, which may be null. */
RDX_API char* strupr(char* s);
RDX_API char* strlwr(char* s);

/*
 * Compares two texts, case ignored. Returns 0 when they are equal, below 0 when `a` sorts first, above 0
 * when `b` does: the difference of the first two bytes that differ in upper case. A null text sorts first.
 */
RDX_API int stricmp(const char* a, const char* b);

/*
 * The same over at most `n` bytes; 0 for an `n` of 0. A NUL that both texts share does not end the
 * comparison: both must hold `n` bytes or differ before they end.
 */
RDX_API int strnicmp(const char* a, const char* b, int n);

/*
 * Splits "name=value" at the first '='. `*nameSize` is the size of `name` and becomes the length of the name,
 * also when it was cut to fit; `*valueSize` likewise. A size below 1 leaves its buffer alone.
 * Returns ENVSTR_SPLIT, or ENVSTR_NO_EQUAL_SIGN with a log line and the outputs as they were. Ends the
 * process by assertion when the text is null or empty.
 */
RDX_API int SplitEnvStr(const char* szEnvStr, char* name, int* nameSize, char* value, int* valueSize);

/*
 * Joins a prefix and a suffix with exactly one '/' between them into `szBuf` of `uiBufSize` bytes, all of
 * which are written: zeros follow the text. An empty prefix counts as one without a '/' at its end.
 * Returns PATHNAME_MADE, or PATHNAME_TOO_LONG when both texts and 2 bytes do not fit, with `szBuf` as it was.
 * Ends the process by assertion when an argument is null or the size 0.
 */
RDX_API int MakeAbsolutePathName(const char* szAbsolutePrefix, const char* szRelativeSuffix, char* szBuf,
                                 unsigned int uiBufSize);

/* 1 when the path begins with '/', else 0. Ends the process by assertion on null. */
RDX_API int IsAbsolutePathName(const char* szPathName);

/* 1 when the low byte of `c` is '/', else 0. */
RDX_API int IsDirSeparator(int c);

/* The directory separator, "/". */
RDX_API const char* DirSeparator(void);

/*
 * Writes the local time in the form "Wed Jun 30 21:49:08 1993" into `buf`, at most `size` characters of it
 * and a NUL: `buf` must hold `size` + 1 bytes. An empty text when the time is unknown. Returns `buf`.
 */
RDX_API char* Now(char* buf, unsigned int size);

/*
 * The seconds from one time to a later one, both in the form of Now; a null `szLater` means now, in local
 * time. Numbers saturate at the 32-bit limits; a difference below 0 or above 32 bits wraps round.
 * Returns the seconds, or (as unsigned) -1 when `szEvent` is not a time, -2 when `szLater` is not one or the
 * current time is unknown. Ends the process by assertion when `szEvent` is null or empty.
 */
RDX_API unsigned int SecondsBetween(const char* szEvent, const char* szLater);

/*
 * The day's number in the year, from 1. A month that is not one of "Jan" to "Dec", case ignored, or is null
 * counts as the end of the year. Once it has been asked about a leap year, February has 29 days in every
 * later call of the process: dates of other years are a day later then, as callers have always seen them.
 */
RDX_API int DayOfYear(int year, const char* month, int day);

/* 1 for a leap year of the Gregorian calendar, else 0. */
RDX_API int IsLeapYear(int year);

/*
 * Makes the name of a temporary file in "/tmp" that does not exist; no file is created. `buf` of
 * TEMP_FILE_NAME_SIZE bytes receives it.
 * Returns TEMPNAME_MADE, or another result TEMPNAME_ with `buf` as it was.
 */
RDX_API int TempFileName(char* buf);

#ifdef __cplusplus
}
#endif

#endif
