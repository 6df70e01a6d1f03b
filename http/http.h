/*
 * Header records of HTTP messages, the tables that sort header lines into lists, and the two bounded
 * appenders with which messages are written.
 *
 * Ownership: both texts of an HttpHeader come from malloc and belong to the message that holds them, until
 *   FreeHeaders or the message's own Free function releases them.
 * Lines: a line is the range from `p` up to and without `q`, its line end already removed. Nothing at or
 *   behind `q` is read; a NUL inside the line is a byte like any other, but ends the stored text for whoever
 *   reads that as a C string.
 * Threads: the tables are constant and the functions keep no state, so they are safe on data of one's own.
 */
#ifndef RDX_HTTP_HTTP_H
#define RDX_HTTP_HTTP_H

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One header: a name and a value as received or given, each NUL-terminated. */
typedef struct HttpHeader {
    char* name;
    char* value;
} HttpHeader;

/* How many headers of each kind a message holds. The tables below have other sizes: a list bounds how many
   headers are kept, a table only says which names belong to it. */
enum {
    HTTP_MAX_GENERAL_HEADERS = 16,
    HTTP_MAX_REQUEST_HEADERS = 14,
    HTTP_MAX_RESPONSE_HEADERS = 8,
    HTTP_MAX_ENTITY_HEADERS = 16
};

/* Statuses. A function that fails as HTTP does returns one with a minus sign, such as
 * -HTTP_STATUS_BAD_REQUEST. */
enum {
    HTTP_STATUS_OK = 200,
    HTTP_STATUS_BAD_REQUEST = 400,
    HTTP_STATUS_UNAUTHORIZED = 401,
    HTTP_STATUS_NOT_FOUND = 404,
    HTTP_STATUS_METHOD_NOT_ALLOWED = 405,
    HTTP_STATUS_INTERNAL_ERROR = 500,
    HTTP_STATUS_NOT_IMPLEMENTED = 501,
    HTTP_STATUS_OUT_OF_RESOURCES = 503,
    HTTP_STATUS_VERSION_NOT_SUPPORTED = 505
};

/* Results of the classifiers of header lines. */
enum {
    HTTP_HEADER_KNOWN = 1,     /* the name, case ignored, is an entry of the table or the beginning of one */
    HTTP_HEADER_OTHER = 0,     /* it is not */
    HTTP_HEADER_MALFORMED = -6 /* there is no colon, or a name of less than 2 characters before it */
};

/* Results of AssignHeaderData. */
enum {
    HTTP_HEADER_STORED = 1,
    HTTP_HEADER_LIST_FULL = -6, /* nothing stored */
    HTTP_HEADER_NO_MEMORY = -1  /* the name is null, or set with a null value; FreeHeaders accepts both */
};

/* Results of AllocHeader. */
enum {
    HTTP_ALLOC_DONE = 0,
    HTTP_ALLOC_NO_NAME = -1, /* no memory for the name, which is null then; the value is untouched */
    HTTP_ALLOC_NO_VALUE = -2 /* no memory for the value, which is null then; the name stays stored */
};

/* Results of the bounded appenders. */
enum {
    HTTP_APPENDED = 0,
    HTTP_APPEND_NO_ROOM = -2,   /* it does not fit, or is null though it has a length; nothing written */
    HTTP_APPEND_EMPTY_TEXT = -9 /* the text is empty, or null; nothing written */
};

/* Limits of a received message, in bytes. */
enum {
    HTTP_LINE_SIZE = 512,   /* buffer of one line, with its NUL: a line has at most 511 characters */
    HTTP_SEPARATOR_SIZE = 3 /* "\r\n" or "\n", with the NUL */
};

/* The header names of each class, in the order in which they are compared. */
extern RDX_API const char* const apszGeneralHeaders[9];
extern RDX_API const char* const apszRequestHeaders[26];
extern RDX_API const char* const apszResponseHeaders[10];
extern RDX_API const char* const apszEntityHeaders[10];

/* The number of names in each table. */
extern RDX_API const int g_cnGeneralHeaders;
extern RDX_API const int g_cnReqHeaders;
extern RDX_API const int g_cnRespHeaders;
extern RDX_API const int g_cnEntityHeaders;

/*
 * Tells whether the line from `p` to `q` is a general header. Only the line's name length is compared, so the
 * leading part of a name stands for it: "Con: x" is a general header, because clients abbreviate.
 *
 *   ppcolon  out: the position of the first colon, also before a name that is too short; untouched when there
 *            is none
 *
 * Returns HTTP_HEADER_KNOWN, HTTP_HEADER_OTHER or HTTP_HEADER_MALFORMED.
 */
RDX_API int IsGeneralHeader(const char* p, const char* q, char** ppcolon);

/* The same for entity headers. The request's and the response's own headers are told by IsRequestHeader
   (httpreq.h) and IsResponseHeader (httpresp.h). */
RDX_API int IsEntityHeader(const char* p, const char* q, char** ppcolon);

/*
 * Cuts a header line into name and value and stores copies of both. The name is everything before the colon;
 * the value begins behind the colon and any further colons and blanks (not tabs) and runs up to `q`. An empty
 * value is stored as an empty text.
 *
 *   p, q      the line; not null
 *   pcolon    a colon inside the line; not null. One outside of it is an assertion.
 *   aHeaders  out: the list; not null. The entry's former pointers are overwritten, not freed.
 *   index     the entry to fill
 *   capacity  how many entries the list has
 *
 * Returns HTTP_HEADER_STORED, HTTP_HEADER_LIST_FULL when `index` is not below `capacity`, or
 * HTTP_HEADER_NO_MEMORY.
 * Null pointers and a `pcolon` that is no colon are assertions.
 */
RDX_API int AssignHeaderData(const char* p, char* pcolon, const char* q, HttpHeader* aHeaders,
                             unsigned char index, int capacity);

/*
 * Fills a header with copies of two texts.
 *
 *   pHeader      out: the header; not null. Its former pointers are overwritten, not freed.
 *   name, value  not null, not empty
 *
 * Returns HTTP_ALLOC_DONE, HTTP_ALLOC_NO_NAME or HTTP_ALLOC_NO_VALUE.
 * Null pointers and empty texts are assertions.
 */
RDX_API int AllocHeader(HttpHeader* pHeader, const char* name, const char* value);

/*
 * Frees both texts of the first `count` headers and sets the pointers to null, so that a second call is
 * harmless. A null `aHeaders`, a `count` of 0 or less and null texts are accepted.
 */
RDX_API void FreeHeaders(HttpHeader* aHeaders, int count);

/*
 * Appends a text and its NUL at a cursor and moves the cursor onto the NUL. At least one byte stays spare: a
 * buffer of S bytes takes S - 2 characters at most.
 *
 *   ppCursor  in/out: where to write; unchanged on failure
 *   pLast     the last byte of the buffer
 *   text      the text
 *
 * Returns HTTP_APPENDED, HTTP_APPEND_EMPTY_TEXT or HTTP_APPEND_NO_ROOM.
 */
RDX_API int AssertedStrCopy(char** ppCursor, const char* pLast, const char* text);

/*
 * Appends `n` bytes at a cursor, without a NUL, and moves the cursor behind them. The same byte stays spare.
 *
 *   ppCursor  in/out: where to write; unchanged on failure
 *   pLast     the last byte of the buffer
 *   data      the bytes; may be null when `n` is 0
 *   n         how many
 *
 * Returns HTTP_APPENDED or HTTP_APPEND_NO_ROOM.
 */
RDX_API int AssertedMemCopy(char** ppCursor, const char* pLast, const void* data, unsigned int n);

#ifdef __cplusplus
}
#endif

#endif
