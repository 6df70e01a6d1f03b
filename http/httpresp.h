/*
 * Responses: the record, building and writing one, and reading one from a socket.
 *
 * Ownership: a response is created zero-filled. FreeHttpResponse frees what it owns; whoever created the
 *   record then frees the record itself (one made by CreateHttpResponse or ConsumeHttpResponse comes from
 *   calloc).
 * Lines: as in http.h, the range from `p` up to and without `q`.
 * Threads: a response belongs to one thread at a time. The settings that are read here may be rewritten
 *   meanwhile.
 *
 * Null records, texts and outputs are not accepted unless said so.
 */
#ifndef RDX_HTTP_HTTPRESP_H
#define RDX_HTTP_HTTPRESP_H

#include "common/export.h"
#include "http/http.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The status codes a response can have. */
enum { HTTP_MIN_STATUS = 100, HTTP_MAX_STATUS = 599 };

/* Results of creating, writing and reading a response. */
enum {
    HTTPRESP_DONE = 0,
    HTTPRESP_NO_MEMORY = -1,
    HTTPRESP_NO_RECORD = -1,       /* the response, or the place for it, is null */
    HTTPRESP_NO_BUFFER = -2,       /* the buffer is null, its size is 0, or it is too small */
    HTTPRESP_NO_CONTENT_TYPE = -3, /* the content type is null or empty */
    HTTPRESP_BAD_STATUS = -7,      /* outside HTTP_MIN_STATUS to HTTP_MAX_STATUS */
    HTTPRESP_BAD_VERSION = -8,     /* the version's number is neither 10 nor 11 */
    HTTPRESP_EMPTY_TEXT = -9,      /* the reason, a header's name or a header's value is empty or null */
    HTTPRESP_NOT_HTTP = -10,       /* no "HTTP/", or no blank within 5 characters behind it */
    HTTPRESP_NO_STATUS = -11,      /* nothing follows the version */
    HTTPRESP_NO_REASON = -13,      /* no blank behind the status, or no reason */
    HTTPRESP_OTHER_VERSION = -90,  /* the version's name is neither 1.0 nor 1.1 */
    HTTPRESP_UNUSABLE = -98        /* no header or one of no known class, or the body ended early */
};

typedef struct HttpResponse {
    unsigned char ucHttpVersion;            /* 10 for HTTP/1.0, 11 for HTTP/1.1 */
    unsigned short usStatusCode;            /* HTTP_MIN_STATUS to HTTP_MAX_STATUS */
    char* pszReason;                        /* owned: the reason phrase */
    char* pszReserved;                      /* owned: never set here, freed when set */
    char pszSeparator[HTTP_SEPARATOR_SIZE]; /* the received status line's end; empty in created responses */
    unsigned char ucNumOfGeneralHeaders;    /* counts rise past the lists' capacities, up to 255 */
    HttpHeader aGeneralHeaders[HTTP_MAX_GENERAL_HEADERS]; /* lists in order */
    unsigned char ucNumOfResponseHeaders;
    HttpHeader aResponseHeaders[HTTP_MAX_RESPONSE_HEADERS];
    unsigned char ucNumOfEntityHeaders;
    HttpHeader aEntityHeaders[HTTP_MAX_ENTITY_HEADERS];
    unsigned int uiBodyLength; /* bytes in `pEntityBody` */
    char* pEntityBody;         /* owned: the body, without a NUL */
} HttpResponse;

/*
 * Creates a response of version 1.1 with its reason phrase, its standard headers and a copy of the body.
 *
 *   ppResponse      out: the new response, which the caller owns; null on every failure
 *   usStatus        HTTP_MIN_STATUS to HTTP_MAX_STATUS
 *   pszContentType  value of the Content-type header
 *   pBody           the body, or null for none
 *   uiBodyLength    its length; when not 0 it also goes into a Content-length header, even without a body
 *
 * Returns HTTPRESP_DONE, HTTPRESP_NO_MEMORY, HTTPRESP_NO_RECORD, HTTPRESP_NO_CONTENT_TYPE or
 * HTTPRESP_BAD_STATUS.
 */
RDX_API int CreateHttpResponse(HttpResponse** ppResponse, unsigned short usStatus, const char* pszContentType,
                               const char* pBody, unsigned int uiBodyLength);

/*
 * Writes a response as it goes over the wire, with the entity terminator behind it when the settings ask for
 * one. The response is not changed. Lines always end in "\r\n".
 *
 *   pBuf       out: the bytes, not NUL-terminated; partly written on failure
 *   uiBufSize  size of `pBuf`; one byte stays spare, so that at most `uiBufSize` - 2 bytes are written
 *
 * Returns the number of bytes written, above 0, or HTTPRESP_NO_RECORD, HTTPRESP_NO_BUFFER,
 * HTTPRESP_BAD_VERSION or HTTPRESP_EMPTY_TEXT.
 */
RDX_API int SerializeHttpResponse(HttpResponse* pResponse, char* pBuf, unsigned int uiBufSize);

/*
 * Reads a whole response from a connected socket: status line, headers, body.
 *
 *   sock        the socket
 *   ppResponse  out: the new response, which the caller owns; null on every failure
 *
 * Returns HTTPRESP_DONE; HTTPRESP_NO_MEMORY; -HTTP_STATUS_INTERNAL_ERROR when there is no memory for the
 * body, or its length is below 0; HTTPRESP_UNUSABLE when the body ended early; and every result of
 * ReadHttpRespHeaders.
 * A null `ppResponse` is an assertion, and so are the cases named at the functions below.
 */
RDX_API int ConsumeHttpResponse(int sock, HttpResponse** ppResponse);

/*
 * Reads the status line and the headers up to the empty line.
 *
 *   pResponse  in/out: a zero-filled response; on failure it holds what was read so far
 *
 * Returns HTTPRESP_DONE; -HTTP_STATUS_BAD_REQUEST when a line could not be read or is too long, and for no
 * status line and a Content-length of 0; HTTPRESP_UNUSABLE; and
 * every result of ParseHttpStatusLine.
 *
 * Any result but 0 of a classifier selects its list, as on the request's side: a line without a colon ends
 * the process by the assertion of AssignHeaderData. A header that its list has no room for, or there is no
 * memory for, is counted and otherwise ignored.
 */
RDX_API int ReadHttpRespHeaders(int sock, HttpResponse* pResponse);

/*
 * Parses the status line from `p` to `q` into version, status code and reason phrase.
 *
 * Returns HTTPRESP_DONE, HTTPRESP_NO_MEMORY for the reason, HTTPRESP_BAD_STATUS, HTTPRESP_NOT_HTTP,
 * HTTPRESP_NO_STATUS, HTTPRESP_NO_REASON or HTTPRESP_OTHER_VERSION.
 * On failure the response holds what was parsed before. A line of 5 characters and less is an assertion.
 */
RDX_API int ParseHttpStatusLine(const char* p, const char* q, HttpResponse* pResponse);

/* Tells whether the line from `p` to `q` is a response header; see IsGeneralHeader in http.h. */
RDX_API int IsResponseHeader(const char* p, const char* q, char** ppcolon);

/*
 * Frees what the response owns, but not the record. Pointers and counts become null and 0, so that a second
 * call is harmless. A null response is accepted; a count above its list's capacity is an assertion.
 */
RDX_API void FreeHttpResponse(HttpResponse* pResponse);

/*
 * Lists version, status, counts, length and addresses on standard output, below `pszTitle`. Addresses show
 * their low 32 bits.
 */
RDX_API void DumpHttpResp(char* pszTitle, HttpResponse* pResponse);

#ifdef __cplusplus
}
#endif

#endif
