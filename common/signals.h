/*
 * What the server's signal handler has seen. Both are written by the handler and may be read at any time.
 */
#ifndef RDX_COMMON_SIGNALS_H
#define RDX_COMMON_SIGNALS_H

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The number of the last terminating signal received; 0 before any. */
extern RDX_API int sigerr;

/* 1 once a terminating signal was received: the service loop ends on it. */
extern RDX_API int signalled;

#ifdef __cplusplus
}
#endif

#endif
