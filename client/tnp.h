/*
 * The outgoing client: calls to the "/Tavrin" service of another server.
 *
 * The caller connects the socket beforehand and closes it afterwards. Texts are NUL-terminated and stay the
 * caller's; function names are sent as they are, unencoded. Calls may run on several threads at once, each on
 * records and a socket of its own. The credentials sent are `szAuthInfo`; while it is empty sending fails
 * with -3.
 * A program that does not ignore the signal SIGPIPE is ended by it when the other server closes early.
 */
#ifndef RDX_CLIENT_TNP_H
#define RDX_CLIENT_TNP_H

#include "common/export.h"
#include "http/httpreq.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Results of building a call: the header that could not be added. */
enum {
    TNP_BUILT = 0,
    TNP_NO_BODY = -1,
    TNP_NO_HOST = -1,
    TNP_NO_USER_AGENT = -2,
    TNP_NO_ACCEPT = -3,
    TNP_NO_CONTENT_TYPE = -4,
    TNP_NO_AUTHORIZATION = -5,
    TNP_NO_CONTENT_LENGTH = -6,
    TNP_NO_CONNECTION = -7
};

/* Results of a call, beside those of building and sending it. */
enum {
    TNP_ANSWERED = 0,      /* with 200, body copied */
    TNP_OTHER_STATUS = -1, /* with another status; `*puiBufsiz` is as it was */
    TNP_BODY_CUT = -2      /* with 200, body cut to the buffer */
};

/*
 * Fills a request record with a call. Whatever the record held is forgotten, not freed.
 *
 *   pRequest     out: the request; release its contents with FreeHttpRequest, also on failure
 *   pszHost      the Host header
 *   pszFunction  the function called, and what is to follow it in the query
 *   pszBody      the arguments; the configured end-of-entity text is put behind them, and left out of the
 *                Content-length: the other server reads on until it finds the text
 *   ucClose      1: the connection is to be closed after the answer
 *
 * Returns TNP_BUILT, TNP_NO_BODY, or the header that could not be added. Running out of memory for URI or
 * body is an assertion.
 */
RDX_API int BuildTavrinRequestExt(HttpRequest* pRequest, const char* pszHost, const char* pszFunction,
                                  const char* pszBody, unsigned char ucClose);

/* The same for a connection that is to be kept. */
RDX_API int BuildTavrinRequest(HttpRequest* pRequest, const char* pszHost, const char* pszFunction,
                               const char* pszBody);

/*
 * Makes a whole call on a connected socket and copies the answer's body.
 *
 *   sock         the socket
 *   pszHost      the Host header
 *   pszUnused    not used
 *   pszArgs      the arguments, not empty
 *   pszFunction  the function called
 *   ucClose      1: the connection is to be closed after the answer
 *   pBuf         out: the answer's body, without a NUL
 *   puiBufsiz    in: the size of `pBuf` in bytes, above 0; out: the length of the whole body
 *
 * Returns TNP_ANSWERED, TNP_OTHER_STATUS, TNP_BODY_CUT, or a code of BuildTavrinRequestExt or
 * SendHttpRequest. Null or empty arguments, a null buffer and a size of 0 are assertions.
 */
RDX_API int QueryTavrinExt(int sock, const char* pszHost, const char* pszUnused, const char* pszArgs,
                           const char* pszFunction, unsigned char ucClose, char* pBuf,
                           unsigned int* puiBufsiz);

/* The same for a connection that is to be closed. */
RDX_API int QueryTavrin(int sock, const char* pszHost, const char* pszUnused, const char* pszArgs,
                        const char* pszFunction, char* pBuf, unsigned int* puiBufsiz);

#ifdef __cplusplus
}
#endif

#endif
