/*
 * The entry of the library: starting the server, its command line and its signals.
 *
 * A host process calls rdxhttp_main once, on a thread of its own; the call runs the whole server and returns
 * when the server has shut down. The other functions are the steps of it.
 */
#ifndef RDX_SERVER_RDXHTTP_H
#define RDX_SERVER_RDXHTTP_H

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Size in bytes, the NUL included, of a service port on the command line and of the configuration path. */
enum { RDXHTTP_PORT_SIZE = 16, RDXHTTP_PATH_SIZE = 4096 };

/* Results of rdxhttp_main. */
enum {
    RDXHTTP_OK = 0,                  /* an ordinary shutdown */
    RDXHTTP_BAD_COMMAND_LINE = -1,   /* an unknown option, or one without its value */
    RDXHTTP_BAD_CONFIGURATION = -2,  /* the configuration file could not be read, or holds a bad line */
    RDXHTTP_BAD_LOGFILE = -4,        /* the log file could not be opened */
    RDXHTTP_NO_SIGNALS = -6,         /* a signal handler could not be installed */
    RDXHTTP_NO_SOCKETS = -7,         /* the socket library could not be initialised */
    RDXHTTP_NO_SERVER_SOCKET = -9,   /* the service port could not be opened */
    RDXHTTP_NO_SERVICE_LOOP = -10,   /* the service loop could not be set up */
    RDXHTTP_SERVER_SOCKET_LOST = -11 /* the service port could not be closed */
};

/* The names of signals 0 to 29 as the signal handler prints them, in System V's order: where Linux numbers
   a signal differently, another signal's name is printed, as readers of these logs know it. */
extern RDX_API const char* const aszSigNames[30];

/*
 * Runs the server on the calling thread. The texts in `argv` may be changed (a host:port value is cut at
 * its colon) and must live until the call returns. Meant to be called once in a process. While the loop
 * runs, the signals it catches are blocked in the calling thread except while it waits; the thread's mask
 * is as before when the call returns, but for SIGUSR1, which is unblocked. From then on a terminating
 * signal is only noted in `sigerr` and `signalled`, SIGUSR1 has no effect, and SIGINT, SIGQUIT and SIGPIPE
 * are ignored in the whole process. Traces go to the standard output at every verbosity. The host keeps it
 * open, for a connection that gets its descriptor would get the traces, and sees to it that it is read, or a
 * file: who writes to a full pipe waits. Returns one of the results above.
 */
RDX_API int rdxhttp_main(int argc, char** argv);

/* Do nothing, since rdxhttp_main makes its own instance. Return 0. */
RDX_API int rDxHttpCreateInstance(int argc, char** argv);
RDX_API int rDxHttpDeinitialize(void);

/*
 * Reads the command line from argv[1] on: "-p" port, into `szSvcPort` of RDXHTTP_PORT_SIZE bytes, cut when
 * too long; "-c" configuration path; "-mt" thread limit, at least 1; "-as" administration server as host or
 * host:port; "-ba" credentials of at most 26 characters, of which 19 are kept.
 * Returns RDXHTTP_OK, or RDXHTTP_BAD_COMMAND_LINE for an unknown word, an option without its value, a port
 * that does not begin with a digit and credentials that are too long; what came before stays set.
 */
RDX_API int ParseCommandLine(int argc, char** argv, char* szSvcPort);

/* Installs the signal handler and ignores SIGINT, SIGQUIT and SIGPIPE; unblocks SIGUSR1 in the calling
   thread. Returns RDXHTTP_OK, or RDXHTTP_NO_SIGNALS when a handler could not be installed. */
RDX_API int InitSignalHandling(void);

/*
 * Handles a caught signal: SIGUSR1 reads the configuration file again, every other one stops the server.
 * On a thread that does not run the server, while another does, it passes a signal that the server catches on
 * to that thread; any other number it handles itself, wherever it is called.
 */
RDX_API void SignalHandler(int sig);

/* Writes the log line "program exits". The start does not install it: a host that wants the line does. */
RDX_API void ExitFunction(void);

/* Checks the run-time library: nothing to check here. Returns 0. */
RDX_API int AssertCrt(void);

/* Does nothing: the log stays on the standard streams. Returns 0. */
RDX_API int OpenLogfile(const char* path);

/* Closes the log streams that are not the standard ones and sets them back to those. Returns 0. */
RDX_API int CloseLogfile(void);

#ifdef __cplusplus
}
#endif

#endif
