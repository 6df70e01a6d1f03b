/*
 * Requests: the record, reading one from a socket, and reading from the record.
 *
 * Ownership: a request is created zero-filled. FreeHttpRequest frees what it owns; whoever created the record
 *   then frees the record itself (one made by ConsumeHttpRequest comes from calloc).
 * Lines: as in http.h, the range from `p` up to and without `q`.
 * Codes: an HTTP status of http.h with a minus sign where one is meant, small negative numbers elsewhere.
 * Traces: reading prints progress lines, each beginning with a line feed, on standard output.
 * Threads: a request belongs to one thread at a time. The settings that are read here may be rewritten
 *   meanwhile.
 * Null records, texts and outputs are not accepted unless said so.
 */
#ifndef RDX_HTTP_HTTPREQ_H
#define RDX_HTTP_HTTPREQ_H

#include "common/export.h"
#include "http/http.h"
#include "http/httpresp.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Methods by their index in `ucMethod` and in the configured allow table `aiMethodsAllowed`. */
enum {
    HTTP_GET = 0,
    HTTP_PUT = 1,
    HTTP_POST = 2,
    HTTP_HEAD = 3,
    HTTP_DELETE = 4,
    HTTP_TRACE = 5,
    HTTP_OPTIONS = 6,
    HTTP_CONNECT = 7,
    HTTP_METHODS = 8 /* how many there are */
};

/* Limits of a request, in bytes. */
enum {
    HTTP_WORD_SIZE = 256,      /* method, URI or protocol name, with its NUL: longer words are refused */
    HTTP_PEER_NAME_SIZE = 256, /* peer address and port, with the NUL */
    HTTP_QUERY_KEY_SIZE = 128, /* name and "=" of a query parameter, with the NUL: a name has at most 126 */
    HTTP_SEND_BUFFER_SIZE = 132096 /* a request written out to be sent (129 KiB) */
};

/* Results of reading, searching, writing and sending a request. */
enum {
    HTTPREQ_DONE = 0,
    HTTPREQ_NOT_RECEIVED = -1, /* the socket's receive failed */
    HTTPREQ_NO_METHOD = -1,    /* a method that nobody knows */
    HTTPREQ_REFUSED = -1,      /* credentials are missing or wrong */
    HTTPREQ_NOT_ADDED = -1,    /* a header's name is in no table, or memory is short */
    HTTPREQ_BAD_ESCAPE = -1,   /* an empty text, or an escape that is not known */
    HTTPREQ_NO_RECORD = -1,    /* no request to write */
    HTTPREQ_NO_BUFFER = -2,    /* no buffer, no room in it, or a length but no body */
    HTTPREQ_EMPTY_TEXT = -9,   /* an empty text: URI, header name or header value */
    HTTPREQ_NO_MEMORY = -1,    /* to send with */
    HTTPREQ_NOT_WRITTEN = -3, /* could not be written out: no method or version for it, a text, or its size */
    HTTPREQ_NOT_SENT = -4,    /* could not be sent whole */
    HTTPREQ_NO_ANSWER = -6    /* the answer could not be read */
};

/* Results of GetQueryStringValue. */
enum {
    HTTPQUERY_FOUND = 0,
    HTTPQUERY_NAME_TOO_LONG = -1,
    HTTPQUERY_NOT_FOUND = -2,
    HTTPQUERY_EMPTY = -3,  /* the value is empty */
    HTTPQUERY_NO_ROOM = -4 /* the value and its NUL do not fit */
};

/* Results of ReadMultipartData that are no lengths. */
enum {
    HTTPPART_NO_LINE_END = -1,   /* none behind the offset */
    HTTPPART_NO_EMPTY_LINE = -2, /* none behind that */
    HTTPPART_NO_BOUNDARY = -3    /* none behind that */
};

typedef struct HttpRequest {
    unsigned char ucMethod;                 /* HTTP_GET to HTTP_CONNECT */
    unsigned char ucHttpVersion;            /* 10 for HTTP/1.0, 11 for HTTP/1.1 */
    char* pszUri;                           /* owned: path and query as received, not decoded; null when the
                                               first line was empty or the connection was closed */
    char pszSeparator[HTTP_SEPARATOR_SIZE]; /* the request line's end, "\r\n" or "\n" */
    unsigned char ucNumOfGeneralHeaders;    /* counts rise past the lists' capacities, up to 255 */
    HttpHeader aGeneralHeaders[HTTP_MAX_GENERAL_HEADERS]; /* lists in order of arrival */
    unsigned char ucNumOfRequestHeaders;
    HttpHeader aRequestHeaders[HTTP_MAX_REQUEST_HEADERS];
    unsigned char ucNumOfEntityHeaders;
    HttpHeader aEntityHeaders[HTTP_MAX_ENTITY_HEADERS];
    unsigned char ucMultipart;            /* 1 when a multipart/form-data boundary was found */
    unsigned char ucKeepAlive;            /* 1 when the connection stays open after the response */
    unsigned char ucBoundaryLen;          /* length of `pszBoundary`, its low 8 bits */
    char* pszBoundary;                    /* owned: "--" and the boundary parameter */
    unsigned int uiBodyLength;            /* bytes in `pEntityBody` */
    char* pEntityBody;                    /* owned: the body, without a NUL when read from a socket */
    int iSocket;                          /* the socket the request was read from */
    char szPeerName[HTTP_PEER_NAME_SIZE]; /* "address:port" of an IPv4 peer, else empty */
} HttpRequest;

/*
 * Reads a whole request from a connected socket: request line, headers, body, credentials, peer.
 *
 * A connection that closes, or a line that is empty, before anything else arrives is accepted too: the
 * request then has a null `pszUri` and no headers, by which callers tell such a one.
 *
 *   sock       the socket
 *   ppRequest  out: the new request, which the caller owns; null on every failure
 *
 * Returns HTTP_STATUS_OK when it was read and accepted, or
 *   HTTPREQ_NOT_RECEIVED
 *   -HTTP_STATUS_BAD_REQUEST            a line is malformed or too long, there is no header at all, the body
 *                                       is short, or its length 0 or above a limit; a form without POST or
 *                                       without a boundary
 *   -HTTP_STATUS_UNAUTHORIZED           credentials are required, and missing or wrong
 *   -HTTP_STATUS_METHOD_NOT_ALLOWED     method unknown or not allowed
 *   -HTTP_STATUS_INTERNAL_ERROR         no memory, or a header of no known class
 *   -HTTP_STATUS_NOT_IMPLEMENTED        the protocol is not HTTP
 *   -HTTP_STATUS_VERSION_NOT_SUPPORTED  the version is neither 1.0 nor 1.1
 * A null `ppRequest` is an assertion. So are a header line without any colon and, on a failure, a header
 * list that has overflowed.
 */
RDX_API int ConsumeHttpRequest(int sock, HttpRequest** ppRequest);

/*
 * Reads the request line and the headers up to the empty line.
 *
 *   sock  the socket
 *   pReq  in/out: a zero-filled request; on failure it holds what was read so far
 *
 * Returns HTTPREQ_DONE, also when the first line is empty (nothing is stored then), or a failure as
 * ConsumeHttpRequest does. The Content-length is leading digits; anything else reads as 0.
 *
 * Any result but 0 of a classifier selects its list, also that of a malformed line: a name of one character
 * makes a general header, and a line without a colon ends the process by the assertion of AssignHeaderData. A
 * header that its list has no room for, or there is no memory for, is counted and otherwise ignored.
 */
RDX_API int ReadHttpReqHeaders(int sock, HttpRequest* pReq);

/*
 * Reads the body of `uiBodyLength` bytes into `pEntityBody`, without a NUL.
 *
 * Returns HTTPREQ_DONE when it was read, or there is none to read; -HTTP_STATUS_BAD_REQUEST when the length
 * is above g_dwPostMaxContLength, g_dwPostMaxSizeToRead or 2^31 - 1, or the body ended early (what arrived
 * stays in the request); -HTTP_STATUS_INTERNAL_ERROR without memory.
 */
RDX_API int ReadPostData(int sock, HttpRequest* pReq);

/*
 * Parses the request line from `p` to `q` into method, URI, version and the version's keep-alive.
 *
 * Returns HTTPREQ_DONE, or
 *   -HTTP_STATUS_BAD_REQUEST            a word is missing, or has HTTP_WORD_SIZE characters or more
 *   -HTTP_STATUS_METHOD_NOT_ALLOWED     the method is unknown or not allowed
 *   -HTTP_STATUS_INTERNAL_ERROR         no memory for the URI
 *   -HTTP_STATUS_NOT_IMPLEMENTED        the protocol is not HTTP
 *   -HTTP_STATUS_VERSION_NOT_SUPPORTED  the rest of the line is neither 1.0 nor 1.1
 * On failure the request holds what was parsed before.
 */
RDX_API int ParseHttpMethodLine(const char* p, const char* q, HttpRequest* pReq);

/*
 * Looks a method up, case ignored.
 *
 *   pszMethod  the method's name, or null, which is no method's
 *   piIndex    out: its index, or -1
 *
 * Returns the method's entry in the allow table (1 and more: allowed), or HTTPREQ_NO_METHOD.
 */
RDX_API int IsMethodAllowed(const char* pszMethod, int* piIndex);

/* Tells whether the line from `p` to `q` is a request header; see IsGeneralHeader in http.h. */
RDX_API int IsRequestHeader(const char* p, const char* q, char** ppcolon);

/*
 * Checks the request's credentials if the settings demand it. `sock` is not used.
 *
 * Returns HTTPREQ_DONE to let the request pass, or HTTPREQ_REFUSED.
 */
RDX_API int CheckAuth(int sock, HttpRequest* pReq);

/*
 * Returns 1 when the value of an Authorization header is "Basic " (case ignored) and exactly the configured
 * credentials, which are held encoded just as clients send them; else 0. A null value is accepted.
 */
RDX_API int IsAuthorized(const char* pszAuthorization);

/*
 * Returns the value of the first header of this name, case ignored, among the general, then the request, then
 * the entity headers. The text belongs to the request. Null when there is none, or when `pReq` is null.
 * A null or empty name is an assertion.
 */
RDX_API char* GetReqHeaderByName(HttpRequest* pReq, const char* szName);

/*
 * Tells in which list the first header of this name, case ignored, is.
 *
 * Returns 1 general, 2 request, 3 entity headers; 0 when it is in none, or when `pReq` is null.
 * A null name is an assertion, and so is a list without a free entry, wherever the header is.
 */
RDX_API int IsHeaderAvailable(HttpRequest* pReq, const char* pszHeader);

/*
 * Appends a copy of a header to the list that its whole name, case ignored, belongs to.
 *
 * Returns HTTPREQ_DONE, or HTTPREQ_NOT_ADDED with the request unchanged.
 * A null name or value and a full list are assertions.
 */
RDX_API int AddHeader2Request(HttpRequest* pReq, HttpHeader* pHeader);

/*
 * Copies the value of a query parameter, not decoded. The name is searched with its "=" anywhere in the URI,
 * case kept: "name" is also found in "xname=", which clients rely on.
 *
 *   szName    the parameter's name, at most 126 characters
 *   szBuf     out: the value and its NUL; untouched on failure
 *   uiBufsiz  size of `szBuf`, with the NUL
 *
 * Returns HTTPQUERY_FOUND or another result HTTPQUERY_.
 * Null pointers, a null `pszUri` and a size of 0 are assertions.
 */
RDX_API int GetQueryStringValue(HttpRequest* pstRequest, const char* szName, char* szBuf,
                                unsigned int uiBufsiz);

/*
 * Decodes the escapes %20, %25, %3A and %5C (upper case only) in place. A decoded '%' begins an escape again:
 * "%2520" becomes a blank. Never reads or writes behind the NUL.
 *
 * Returns HTTPREQ_DONE, or HTTPREQ_BAD_ESCAPE; the text is then decoded up to there.
 * A null text is an assertion.
 */
RDX_API int DecodeUrlString(char* szUrlString);

/*
 * Extracts the data of the form part whose boundary line or header begins at or behind an offset of the body.
 * Nothing outside the body is read.
 *
 *   uiOffset  where to begin, above 0 and below `uiBodyLength`. The first line end from here on ends a line
 *             of the part's head, and counts as the first of the two in a row that end the head.
 *   pBuf      out: a NUL-terminated copy, which the caller owns; null when the data is empty; untouched on
 *             failure
 *
 * Returns the data's length, 0 and more, or a result HTTPPART_.
 * An offset outside its range, a null `pBuf`, a request without boundary, and no memory are assertions.
 */
RDX_API int ReadMultipartData(HttpRequest* pReq, unsigned int uiOffset, char** pBuf);

/*
 * Frees what the request owns, but not the record. Pointers and counts become null and 0, so that a second
 * call is harmless. A null request and a count above its list's capacity are assertions.
 */
RDX_API void FreeHttpRequest(HttpRequest* pRequest);

/*
 * Writes a request into a buffer, as it is sent or as an HTML page that shows it. A POST is sent without a
 * blank behind its method: the servers that this client calls compare the line so. The body stands in the
 * page as it is, unescaped.
 *
 *   pRequest   the request, with GET or POST as its method
 *   pBuf       out: the text, without a NUL behind a body
 *   uiBufSize  its size in bytes; one byte stays spare, so that at most `uiBufSize` - 2 bytes are written
 *   ucHtml     0: as it is sent; not 0: as a page
 *
 * Returns the number of bytes written, or HTTPREQ_NO_RECORD, HTTPREQ_NO_BUFFER, HTTPREQ_EMPTY_TEXT,
 * -HTTP_STATUS_NOT_IMPLEMENTED for a method other than GET and POST, -HTTP_STATUS_VERSION_NOT_SUPPORTED for a
 * version other than 10 and 11.
 * Of several causes the one that is met first while writing counts.
 */
RDX_API int SerializeHttpRequest(HttpRequest* pRequest, char* pBuf, unsigned int uiBufSize,
                                 unsigned char ucHtml);

/*
 * Sends a request on a connected socket and reads the answer. The socket stays open, and the caller's.
 * Without the signal SIGPIPE ignored, a server that closes early ends the process.
 *
 *   pRequest    the request
 *   ppResponse  out: the answer, which the caller owns; null on failure
 *
 * Returns HTTPREQ_DONE when it was answered, with whatever status, or HTTPREQ_NO_MEMORY, HTTPREQ_NOT_WRITTEN,
 * HTTPREQ_NOT_SENT or HTTPREQ_NO_ANSWER.
 * Null pointers are assertions.
 */
RDX_API int SendHttpRequest(int sock, HttpRequest* pRequest, HttpResponse** ppResponse);

#ifdef __cplusplus
}
#endif

#endif
