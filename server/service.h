/*
 * The service loop, the bodies that serve one request each, and the handler table.
 *
 * The loop runs on one thread, the primary one. Each connection with a request waiting is given a slot, a
 * ServiceCall, and a serving body: on a thread of its own in the multi-threaded server, on the primary
 * thread in the single-threaded one. A slot is shared by the loop and one serving thread, without a lock:
 *
 *     iSvcStatus   -1 free         only the loop leaves this state, before the body runs
 *                   1 in service   only the serving body leaves this state, as its last access to the slot
 *                   2 finished     only the loop leaves this state, when it harvests the slot
 */
#ifndef RDX_SERVER_SERVICE_H
#define RDX_SERVER_SERVICE_H

#include "common/export.h"
#include "common/mt.h"
#include "http/httpreq.h"
#include "http/httpresp.h"

#include <sys/select.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Size in bytes of a handler's output, of a serialised response and of an acknowledge, each (129 KiB). */
enum { SERVICE_BUFFER_SIZE = 132096 };

/* Values of ServiceCall.iSvcStatus. */
enum { SERVICE_FREE = -1, SERVICE_RUNNING = 1, SERVICE_FINISHED = 2 };

/* Results of a service that are no numbers of bytes sent. */
enum {
    SERVICE_FOLLOWED_UP = 0,       /* junior mode: the administration server took the result */
    SERVICE_NO_REQUEST = -1,       /* nothing was asked, and nothing sent */
    SERVICE_NOT_BUILT = -2,        /* no response, or no follow-up, could be made */
    SERVICE_NOT_WRITTEN = -3,      /* the response could not be written out, or was not sent whole */
    SERVICE_NOT_CONNECTED = -3,    /* junior mode: the administration server was not reached */
    SERVICE_NOT_ANSWERED = -4,     /* the follow-up was not sent or not answered */
    SERVICE_FOLLOW_UP_REFUSED = -5 /* or answered with another status than 200 */
};

/* Results of RunHttpServer and InitializeThreads. */
enum {
    SERVICE_LOOP_ENDED = 0,
    SERVICE_LOOP_NOT_SET_UP = -1,
    SERVICE_THREADS_READY = 0,
    SERVICE_NO_THREAD_LIBRARY = -1,
    SERVICE_NO_SLOTS = -2
};

/* One service slot. */
typedef struct ServiceCall {
    int hSocket;                 /* the connection; -1 none */
    int iSvcStatus;              /* SERVICE_FREE, SERVICE_RUNNING or SERVICE_FINISHED */
    unsigned char ucKeepAlive;   /* 1: the connection stays open after the response; left from request to
                                    request, so that an unreadable one is answered as the last one was */
    unsigned char ucTerminate;   /* 1: the request asked the server to stop */
    unsigned char ucReconfigure; /* 1: the service asked for a reconfiguration */
    ThreadID hThreadId;          /* the serving thread; -1 none */
    fd_set* pFdSet;              /* the loop's watched connections, where a kept one is put back */
} ServiceCall;

/*
 * Handles one request. `pBuf` of `*pLen` bytes receives the response body, and `*pLen` its length;
 * `*pTerminate` becomes 1 to ask the server to stop. 0: the body is there; above 0: a bad request; below 0:
 * failed, of which -HTTP_STATUS_UNAUTHORIZED asks for authentication.
 */
typedef int (*ServerHandler)(HttpRequest* pReq, char* pBuf, unsigned long* pLen, unsigned char* pTerminate);

/* One entry of the handler table: the URIs that begin with `szPrefix`, case ignored. */
typedef struct ServerFunction {
    const char* szPrefix;
    ServerHandler pHandler;
} ServerFunction;

/* The handler table: "/rDx" and nothing else. */
extern RDX_API const ServerFunction rDxFunctions[1];

/* 1 once the server is to end: a handler asked for it, or the loop cannot go on. */
extern RDX_API unsigned char ucTerminated;

/*
 * Serves the connections of a listening socket until the server is to end, is to be reconfigured, or has
 * received a terminating signal. Up to `nThreadLimit` requests are served at once, each on its own thread;
 * with a limit of 1 (or 0) they are served one after the other on the calling thread. At the end every
 * watched connection is closed; a request in service is answered and its connection closed by its thread.
 * A connection that would take one of the process's last eight descriptors (of a small table the last
 * quarter), or one from FD_SETSIZE on, is closed when accepted. One that is ready when all threads are busy
 * is not watched any more and stays open until its client has closed its side, or the loop ends.
 * One whose client has left before it asked anything is served on the calling thread, which only closes it.
 *
 * Returns SERVICE_LOOP_ENDED; SERVICE_LOOP_NOT_SET_UP, also when `hServerSocket` is FD_SETSIZE or more.
 */
RDX_API int RunHttpServer(unsigned int hServerSocket, unsigned int nThreadLimit);

/*
 * Starts the thread library and makes `nSlots` free slots (at most FD_SETSIZE: no more connections can be
 * in service). Returns SERVICE_THREADS_READY; SERVICE_NO_THREAD_LIBRARY; SERVICE_NO_SLOTS when memory is
 * short or `nSlots` is below 1.
 */
RDX_API int InitializeThreads(int nSlots);

/* Gives up the slots, if there are any. Threads that still serve keep theirs until they end. Returns 0. */
RDX_API int DeinitializeThreads(void);

/*
 * Closes every descriptor below `nMax` that is in `pSet`, but not `hExcept`. An `nMax` outside 0 to 1023
 * means 1024. The set is left as it is. Returns 0.
 */
RDX_API int CloseClientSockets(fd_set* pSet, unsigned int nMax, unsigned int hExcept);

/*
 * The first free one of `nSlots` slots from `pBase`, its socket and thread set to -1; null when none is
 * free. Ends the process by assertion when `pBase` is null or `nSlots` not above 0.
 */
RDX_API ServiceCall* GetServiceCallPtr(ServiceCall* pBase, int nSlots);

/*
 * Harvests the first finished one of `nSlots` slots, and no more than one: passes its requests on to
 * ucTerminated or ucReconfigured and frees it. Ends the process by assertion when a slot in service before
 * it has no thread.
 */
RDX_API void UpdateServerStatus(ServiceCall* pBase, int nSlots);

/*
 * The end of every service. A connection whose `iSvcStatus` is above 0 and that is to be kept is watched
 * again, every other one is closed once its peer has acknowledged the answer; the slot is marked finished
 * and must not be touched any more. On a serving thread it ends the thread with `iSvcStatus`; on the
 * primary thread it returns `iSvcStatus`. Ends the process by assertion when `iSvcStatus` is 0.
 */
RDX_API int ServeClientDone(ServiceCall* pArgs, int iSvcStatus, int bKeepAlive);

/* The handler of a URI; null for a URI without one and for no URI. */
RDX_API ServerHandler GetServerHandler(const char* pszUri);

/*
 * Has a request handled. `pBuf` of `*pLen` bytes, filled with zeros first, receives the response body and
 * `*pLen` its length; `*pTerminate` becomes 1 when the handler asks the server to stop; `*pKeepAlive`
 * becomes the request's wish. `uiReserved` is not used.
 * Returns HTTP_STATUS_OK; -HTTP_STATUS_NOT_FOUND without a handler, with `*pKeepAlive` left alone;
 * -HTTP_STATUS_BAD_REQUEST; -HTTP_STATUS_UNAUTHORIZED; -HTTP_STATUS_INTERNAL_ERROR for any other failure.
 */
RDX_API int HandleRequest(HttpRequest* pReq, char* pBuf, unsigned int* pLen, unsigned int uiReserved,
                          unsigned char* pTerminate, unsigned char* pKeepAlive);

/*
 * Serves one request: reads it, has it handled, answers it and ends with ServeClientDone. Does not return
 * on a serving thread. The result is the service's status as an integer: the bytes sent, a result SERVICE_,
 * or what SendSocket returned. Ends the process by assertion when the slot is null, has no watched set or is
 * not in service.
 */
RDX_API void* ServeClient(ServiceCall* pArgs);

/*
 * Serves one request in junior mode. Without a "SvcTicket" in the query it is handled and answered; with one
 * it is acknowledged at once, then handled, and the result is posted to the administration server. Statuses
 * and bodies differ from ServeClient's where a request is bad or not authorised, as clients of junior mode
 * expect them, and the connection is kept by what the slot's flag says, not the request's. Does not return on
 * a serving thread. The result is the service's status as an integer: the bytes of the response sent, or a
 * result SERVICE_. Keeps some 400 KB on the stack. Ends the process by assertion as ServeClient does.
 */
RDX_API void* ServeClientInStages(ServiceCall* pArgs);

/*
 * Sends a response and keeps or closes the connection. Releases the response, contents and record, and the
 * request, which may be null, as well: unless `iSvcStat` is below 0, when it stays the caller's.
 *   iRspStatus  what CreateHttpResponse returned for the response
 *   pRspBuf     room for the response written out, SERVICE_BUFFER_SIZE bytes
 *   iSvcStat    the service's status so far; below 0 nothing is sent and the connection is closed
 *   pSvc        the connection and the watched set it goes back to
 *   pArgs       not used
 *   ucKeepAlive not 0: a connection that was answered is kept
 * Returns the bytes sent, `iSvcStat` when that is below 0, SERVICE_NOT_BUILT when there is no response,
 * SERVICE_NOT_WRITTEN, or what SendSocket returned. Ends the process by assertion when a response or buffer
 * that is needed is null, or the status comes out as 0.
 */
RDX_API int FinalizeRequest(HttpRequest* pReq, HttpResponse* pRsp, int iRspStatus, char* pRspBuf,
                            int iSvcStat, ServiceCall* pSvc, ServiceCall* pArgs, unsigned char ucKeepAlive);

/*
 * Writes the acknowledge that quotes a ticket into `pBuf` of `uiBufsize` bytes, NUL-terminated. Returns the
 * number of characters. Ends the process by assertion when `pBuf` is null or smaller than 389 bytes.
 */
RDX_API int GenerateAcknowledge(char* pBuf, unsigned int uiBufsize, unsigned long ulTicket);

#ifdef __cplusplus
}
#endif

#endif
