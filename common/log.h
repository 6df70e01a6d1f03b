/*
 * The log streams, the level of verbosity and the log's time stamp.
 *
 * The streams are plain globals: a host may point `outlog` elsewhere after the server has started.
 * They are set and read without a lock; set them while nothing else runs.
 */
#ifndef RDX_COMMON_LOG_H
#define RDX_COMMON_LOG_H

#include "common/export.h"

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The standard streams of the process, set when the library is loaded. */
extern RDX_API FILE* StdErr;
extern RDX_API FILE* StdOut;

/* The error log and the log; null until rdxhttp_main sets them to StdErr and StdOut. A null `outlog` means
 * StdOut. */
extern RDX_API FILE* errlog;
extern RDX_API FILE* outlog;

/* Levels of `ucVerbosity`: progress is logged above VERBOSITY_WARN, tracing above VERBOSITY_LOG. */
enum {
    VERBOSITY_NONE = 0,
    VERBOSITY_FATAL = 1,
    VERBOSITY_ERROR = 2,
    VERBOSITY_WARN = 3,
    VERBOSITY_LOG = 4,
    VERBOSITY_ALL = 5,
    VERBOSITY_DEFAULT = VERBOSITY_WARN
};

/* The level of verbosity, 0 to 5 [VERBOSITY_DEFAULT]; rewritten by SIGUSR1 while the server runs. */
extern RDX_API unsigned char ucVerbosity;

/*
 * Writes the local time of day, in the form of strftime's "%X", into `buf`, or an empty text when it
 * cannot be formatted. `buf` must hold 128 bytes whatever `size` says: `size` is not used, since
 * every caller passes 127. Returns `buf`. Safe from several threads on buffers of their own.
 */
RDX_API char* Now2(char* buf, unsigned int size);

#ifdef __cplusplus
}
#endif

#endif
