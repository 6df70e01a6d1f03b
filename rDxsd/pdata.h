/*
 * Call data and results: the records that carry one device-service call and its answer.
 *
 * Conventions
 *   - Both records are created zero-filled. They own their heap text (allocated with malloc) until
 *     FreeTnRequest or FreeTnResponse releases it; the record itself belongs to its creator.
 *   - Texts are NUL-terminated; sizes named ..._SIZE count the NUL, lengths and ..._MAX do not.
 *   - Every function works on its arguments only and may run on several threads at once.
 *   - A broken precondition, where one is named, ends the process by assertion.
 */
#ifndef RDX_RDXSD_PDATA_H
#define RDX_RDXSD_PDATA_H

#include "common/export.h"
#include "http/httpreq.h"
#include "wddx/wddx.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    /* Longest method name, in characters; the longest known one has 24. */
    PDATA_FUNCTION_NAME_MAX = 32,
    /* Longest name of a form field, in characters; the longest known one has 12. */
    PDATA_FIELD_NAME_MAX = 64,
    /* Size of a result text in bytes, the NUL included; with headers it has to fit the server's buffers. */
    PDATA_RESULT_SIZE = 131072,
    /* Length of the argument packet of a call that sends none. */
    PDATA_DEFAULT_ARGS_LENGTH = 160
};

/* What comes of taking a call from its request. */
enum {
    PDATA_CALL_TAKEN = 0,
    PDATA_BAD_CALL = HTTP_STATUS_BAD_REQUEST, /* the client's mistake, as HTTP counts it */
    PDATA_NOT_MULTIPART = -99,
    PDATA_BAD_START = -1, /* the body does not begin with the boundary, or ends right behind it */
    PDATA_BAD_PART = -2,  /* a part's header is malformed, cut off, or names too long a field */
    PDATA_NO_MEMORY_FOR_ARGS = -2,
    PDATA_NAME_UNREADABLE = -3, /* the data of "FunctionName" could not be read */
    PDATA_NAME_TOO_LONG = -5,   /* so is the method's name */
    PDATA_ARGS_UNREADABLE = -5, /* the data of "FunctionArgs" could not be read */
    PDATA_BOUNDARY_MISSING = -7 /* behind a part */
};

/* What comes of printing a result. */
enum {
    PDATA_ASSIGNED = 0,
    PDATA_NO_TEMP_NAME = -1,
    PDATA_NOT_CREATED = -2,   /* the file, also because its name was taken */
    PDATA_NOT_PRINTED = -3,   /* the value has no printed form */
    PDATA_NOT_WRITTEN = -4,   /* the file could not be written */
    PDATA_NOT_READ_BACK = -5, /* it could not be read */
    PDATA_NO_MEMORY_FOR_TEXT = -6,
    PDATA_TEXT_TOO_LONG = -7,  /* longer than PDATA_RESULT_SIZE */
    PDATA_TEXT_NOT_SHRUNK = -8 /* to the memory that it needs */
};

/* What comes of making packet text displayable. */
enum {
    PDATA_HTML_WRITTEN = 0,
    PDATA_FULL_AT_LESS = -1,    /* the buffer was full at a "<" */
    PDATA_FULL_AT_GREATER = -2, /* at a ">" */
    PDATA_FULL_AT_OTHER = -3    /* at another byte */
};

enum { PDATA_COPIED = 0, PDATA_NOT_COPIED = -1 };

/* Values of TavrinResponse.iStatus. */
enum {
    PDATA_STATUS_RESULT = 0,
    PDATA_STATUS_BEFORE_DISPATCH = -99,
    PDATA_STATUS_BAD_CALL = PDATA_BAD_CALL,
    PDATA_STATUS_UNAUTHORIZED = HTTP_STATUS_UNAUTHORIZED
};

/* One call as taken from its request. */
typedef struct TavrinRequest {
    int iCallNumber;                                  /* set by the dispatcher */
    char szFunctionName[PDATA_FUNCTION_NAME_MAX + 1]; /* the method's name */
    char* pszWddxArgs;                                /* owned argument packet text, null when absent */
    HttpRequest* pHttpRequest;                        /* the request of the call; set by the dispatcher */
} TavrinRequest;

/* The answer to one call. */
typedef struct TavrinResponse {
    int iCallNumber;      /* that of the call */
    unsigned char ucFlag; /* not 0 asks the server to stop; cleared by a result */
    int iStatus;          /* a PDATA_STATUS_...: what rDxHandler makes of the answer */
    char* pszWddxResult;  /* owned result packet text, null when absent */
} TavrinResponse;

/*
 * Takes method name and argument packet from a multipart/form-data body: the fields "FunctionName" and
 * "FunctionArgs" ("PostIt" is ignored).
 *   req   in: a request as ConsumeHttpRequest delivers it. A multipart request without a body, without a
 *         boundary, with one whose length is not ucBoundaryLen, or with a line separator that is not of
 *         one or two characters ends the process by assertion, and so does a field with an empty name.
 *   call  out: szFunctionName and pszWddxArgs (null unless the field was there and not empty).
 * Returns
 *   PDATA_CALL_TAKEN        the whole body was read; what was not there leaves its output as described
 *   PDATA_NOT_MULTIPART     `call` is unchanged
 *   PDATA_BAD_START         `call` is unchanged
 *   PDATA_BAD_PART          also for a field's name of more than PDATA_FIELD_NAME_MAX
 *   PDATA_NAME_UNREADABLE, PDATA_NAME_TOO_LONG, PDATA_ARGS_UNREADABLE, PDATA_BOUNDARY_MISSING
 *   PDATA_BAD_CALL          the method name is empty, or a field is unknown
 * After a failure pszWddxArgs may still hold a text; FreeTnRequest releases it.
 */
RDX_API int GetMultipartCallData(HttpRequest* req, TavrinRequest* call);

/*
 * Takes the method name from the query parameter "FunctionName" and the argument packet from the body; a
 * request without a body gets an empty packet of PDATA_DEFAULT_ARGS_LENGTH characters, which no parser
 * accepts: a client that leaves out the arguments which a method needs is told that its call is bad.
 *   req   in: a request with a URI.
 *   call  out: szFunctionName and pszWddxArgs.
 * Returns PDATA_CALL_TAKEN; PDATA_BAD_CALL when the parameter is missing, empty or too long, with `call`
 * unchanged; PDATA_NO_MEMORY_FOR_ARGS, with pszWddxArgs null.
 */
RDX_API int GetStandardCallData(HttpRequest* req, TavrinRequest* call);

/*
 * Prints `value` as a result packet into `rsp`, through a temporary file of its own that only its owner can
 * read and that is gone when the call returns.
 *   rsp      in/out: on success pszWddxResult is the text (an earlier one is freed), ucFlag is 0 and iStatus
 *            PDATA_STATUS_RESULT; on failure nothing has changed.
 *   value    in: the tree, still the caller's.
 *   comment  in: the packet's comment, written as it is; null gives an empty one.
 * Returns PDATA_ASSIGNED, or one of the codes below it that says why not.
 * A text of exactly PDATA_RESULT_SIZE characters ends the process by assertion.
 */
RDX_API int AssignWddxResult(TavrinResponse* rsp, WddxValue* value, const char* comment);

/* AssignWddxResult with an empty comment. */
RDX_API int AssignResult(TavrinResponse* rsp, WddxValue* value);

/*
 * Makes packet text displayable inside an HTML page: "<" becomes "&lt;" and ">" becomes "&gt;".
 *   szWddx    in: the text; null ends the process by assertion.
 *   szBuf     out: the escaped text; null ends the process by assertion.
 *   uiBufsiz  in: size of szBuf in bytes, the NUL included; 0 ends the process by assertion.
 * Returns PDATA_HTML_WRITTEN, for an empty text with szBuf untouched; PDATA_FULL_AT_LESS,
 * PDATA_FULL_AT_GREATER or PDATA_FULL_AT_OTHER with the escaped text up to there in szBuf.
 */
RDX_API int Wddx2Html(const char* szWddx, char* szBuf, unsigned int uiBufsiz);

/* Frees the argument text and nulls its pointer. A null record is left alone. */
RDX_API void FreeTnRequest(TavrinRequest* call);

/* Frees the result text and nulls its pointer. A null record is left alone. */
RDX_API void FreeTnResponse(TavrinResponse* rsp);

/*
 * Copies a response with a result text of its own; the text that `dst` had is freed.
 * Returns PDATA_COPIED, or PDATA_NOT_COPIED when the text could not be copied (then `dst` has none) or a
 * record is null.
 */
RDX_API int CopyTnResponse(TavrinResponse* dst, const TavrinResponse* src);

#ifdef __cplusplus
}
#endif

#endif
