/*
 * Sockets: a thin layer over IPv4 stream sockets.
 *
 * Conventions
 *   - A socket is its descriptor; -1 means none. Whoever receives a handle closes it with CloseSocket.
 *   - Every function returns an int: 0 or a byte count on success, else a negative number for the step
 *     that failed. A handle is written on success only, unless said otherwise.
 *   - Sockets made here linger for 0 seconds where linger is set: closing one resets the connection, and
 *     what the peer has not acknowledged by then is lost.
 *   - Functions may run on several threads at once, on sockets of their own.
 *   - In the thread that runs the service loop a wait for a peer is also a place where the caught signals
 *     are handled; a terminating signal ends the wait as a failure.
 */
#ifndef RDX_COMMON_PORTABILITY_SOCKETS_H
#define RDX_COMMON_PORTABILITY_SOCKETS_H

#include "common/export.h"

#include <netinet/in.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Bytes that ReadLineFromSocket's line-end buffer must hold: CR, LF and NUL. */
enum { SOCKET_LINE_END_SIZE = 3 };

/* Results of CreateSrvSocket that name the step that failed. */
enum {
    SRVSOCKET_NO_PORT = -1,      /* neither a known service nor a port from 1 to 65535 */
    SRVSOCKET_NO_PROTOCOL = -2,  /* protocol "tcp" unknown */
    SRVSOCKET_NO_SOCKET = -3,    /* no socket */
    SRVSOCKET_NO_REUSE = -4,     /* its address could not be declared reusable */
    SRVSOCKET_NOT_BOUND = -5,    /* the port is in use, or reserved */
    SRVSOCKET_NOT_LISTENING = -6 /* not listening */
};

/* Of CreateClntSocket. */
enum {
    CLNTSOCKET_NO_HOST = -2,      /* no such host */
    CLNTSOCKET_NO_PROTOCOL = -3,  /* protocol "tcp" unknown */
    CLNTSOCKET_NO_SOCKET = -4,    /* no socket */
    CLNTSOCKET_NOT_CONNECTED = -5 /* not connected, or the number is no port */
};

/* Of CreateSrvSocketExt. */
enum {
    SRVSOCKETEXT_NO_SOCKET = -1,    /* no socket */
    SRVSOCKETEXT_NO_REUSE = -2,     /* its address could not be declared reusable */
    SRVSOCKETEXT_NO_ADDRESS = -3,   /* not an address */
    SRVSOCKETEXT_NOT_BOUND = -4,    /* not bound */
    SRVSOCKETEXT_NOT_LISTENING = -5 /* not listening */
};

/* Of CreateClntSocketExt. */
enum {
    CLNTSOCKETEXT_NO_SOCKET = -1,    /* no socket */
    CLNTSOCKETEXT_NO_OPTION = -2,    /* an option could not be set */
    CLNTSOCKETEXT_NO_LOCAL = -3,     /* not a local address */
    CLNTSOCKETEXT_NOT_BOUND = -4,    /* not bound */
    CLNTSOCKETEXT_NO_REMOTE = -5,    /* not a remote address */
    CLNTSOCKETEXT_NOT_CONNECTED = -6 /* not connected */
};

/* Of ReadLineFromSocket. */
enum {
    SOCKETLINE_NOT_RECEIVED = -1, /* receiving failed */
    SOCKETLINE_SECOND_CR = -2,    /* a second CR */
    SOCKETLINE_TOO_LONG = -3      /* the line does not fit */
};

/* Of RecvSocket, SendSocket and WriteSocket. */
enum {
    SOCKET_NOT_RECEIVED = -1, /* receiving failed before anything came */
    SOCKET_NO_MEMORY = -1,    /* memory is short while a failure to send is reported */
    SOCKET_NOT_SENT = -2,     /* sending failed */
    SOCKET_PARTLY_SENT = -3   /* only a part was taken */
};

/* Added to the port that CreateSrvSocket finds by a service's name; 0 unless the host sets it. */
extern RDX_API unsigned short usPortOffset;

/* Prepares the socket library; nothing is needed on this platform. Returns 0. */
RDX_API int InitSockLib(void);

/*
 * Makes a listening socket on every local address. `szService` names a TCP service or is a port number;
 * `iBacklog` is the length of the queue of pending connections.
 * Returns 0 with the handle in `*phSocket`, or a result SRVSOCKET_.
 */
RDX_API int CreateSrvSocket(const char* szService, int iBacklog, int* phSocket);

/*
 * Makes a socket connected to `szService` (as above, without the offset) at `szHost`, a name or a dotted
 * address. Returns 0 with the handle in `*phSocket`, or a result CLNTSOCKET_. Ends the process by assertion
 * on port 0 and on the address 0.0.0.0.
 */
RDX_API int CreateClntSocket(const char* szHost, const char* szService, int* phSocket);

/*
 * Makes a listening socket on the one local address `szLocalAddr` (dotted) and port.
 * Returns 0 with the handle in `*phSocket`, or a result SRVSOCKETEXT_; on failure `*phSocket` is -1. Ends the
 * process by assertion on the address 0.0.0.0, which would listen everywhere: callers rely on one interface.
 */
RDX_API int CreateSrvSocketExt(const char* szLocalAddr, unsigned short usPort, int iBacklog, int* phSocket);

/*
 * Makes a socket bound to a local address and port and connected to a remote address and port, all
 * addresses dotted. Returns 0 with the handle in `*phSocket`, or a result CLNTSOCKETEXT_; on failure
 * `*phSocket` is -1. Ends the process by assertion on the address 0.0.0.0.
 */
RDX_API int CreateClntSocketExt(const char* szLocalAddr, unsigned short usLocalPort, const char* szRemoteAddr,
                                unsigned short usRemotePort, int* phSocket);

/* Closes a socket. Returns 0, or -1 when it could not be closed. */
RDX_API int CloseSocket(int hSocket);

/*
 * Receives until `pBuf` holds `iSize` bytes. Returns their number: `iSize`, less when the peer closed, when
 * receiving failed after some bytes, or, while an end-of-entity text is configured, when the data received
 * ends in that text (or in it and CR LF); SOCKET_NOT_RECEIVED when nothing came.
 * With `cNonBlocking` not 0 the socket is made non-blocking, and stays so; an empty socket is tried again
 * three times in all, after 2 ms each, and the configured text is not looked for.
 * Ends the process by assertion when the configured end-of-entity text is empty.
 */
RDX_API int RecvSocket(int hSocket, void* pBuf, int iSize, char cNonBlocking);

/*
 * Reads one line and what ends it from the socket and nothing behind it. `szBuf` of `uiBufsize` bytes
 * receives the line without its end, NUL-terminated; `szCrLf` of SOCKET_LINE_END_SIZE bytes receives the
 * line end, "\r\n" or "\n", or what came of it. A CR never becomes part of the line.
 * Returns the line's length, 0 also when the peer closed before anything came; a peer that closes ends
 * the line. Else a result SOCKETLINE_; the line up to there is lost. Ends the process by assertion when a
 * buffer is null or `uiBufsize` is 0.
 */
RDX_API int ReadLineFromSocket(int hSocket, char* szBuf, unsigned int uiBufsize, char* szCrLf);

/*
 * Sends `iLength` bytes. Returns `iLength`; SOCKET_NOT_SENT; SOCKET_PARTLY_SENT; SOCKET_NO_MEMORY instead of
 * either when memory is short and failures are reported. Sends without flags: a program that does not ignore
 * SIGPIPE is ended by it when the peer has closed.
 */
RDX_API int SendSocket(int hSocket, const void* pData, int iLength);

/* Writes at most `uiLength` bytes at once. Returns the number written, or what write returned. */
RDX_API int WriteSocket(int hSocket, const void* pData, unsigned int uiLength);

/*
 * The hook through which socket failures are reported, with the function that met one and what it was
 * doing. It prints nothing. Returns errno, which it leaves as it is.
 */
RDX_API int ReportSocketError(const char* szFunction, const char* szMessage);

/* Writes the log line of an accepted connection, with the client's address and handle, to `stream`. Returns
 * 0. */
RDX_API int DumpClientSocket(FILE* stream, const char* szFunction, int hClient,
                             const struct sockaddr_in* pClient);

/* Whether a client may connect: every client may. Returns 1. */
RDX_API int IsClientGranted(void);

/* Sets linger to 0 seconds, whatever comes of it, and the reuse of the address. Returns 0, or -1 when the
   address could not be declared reusable. */
RDX_API int ReuseSockAddr(int hSocket);

/* The local host's address: not provided on this platform. Returns -1. */
RDX_API int GetLocalHostAddr(void);

#ifdef __cplusplus
}
#endif

#endif
