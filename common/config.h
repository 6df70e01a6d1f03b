/*
 * The settings of the server and the reader of the INI file they come from.
 *
 * The settings are plain process-wide globals that every module reads directly. SIGUSR1 rewrites them while
 * requests are served: inside the library they are read and written through common/shared.h; a program that
 * sets them itself does so while no server runs. Texts are NUL-terminated within their arrays.
 */
#ifndef RDX_COMMON_CONFIG_H
#define RDX_COMMON_CONFIG_H

#include "common/export.h"
#include "common/log.h"
#include "common/mt.h"

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Sizes in bytes of the text settings, the NUL included: a value of the file must fit whole. */
enum {
    CONFIG_ADDRESSES_SIZE = 257,                         /* a list of client addresses */
    CONFIG_TERMINATOR_SIZE = 65,                         /* what is sent behind a body */
    CONFIG_AUTH_INFO_SIZE = 49,                          /* "user:password" in Base64 */
    CONFIG_AUTH_REALM_SIZE = 33,                         /* goes into a header of a 401 answer */
    CONFIG_PORT_SIZE = 13,                               /* a service's name or number */
    CONFIG_ADDRESS_SIZE = 17,                            /* a dotted address */
    CONFIG_PATH_SIZE = 257,                              /* a file's path */
    CONFIG_REMOTE_HOST_SIZE = 130,                       /* a host's name */
    CONFIG_ADMIN_HOST_SIZE = 129,                        /* the same, from the command line */
    CONFIG_CREDENTIALS_SIZE = 6 + CONFIG_AUTH_INFO_SIZE, /* "Basic " and an AuthInfo */
    CONFIG_METHODS = 8                                   /* not a text: the methods of HTTP/1.1 */
};

/* The file that is read unless another one is named. */
#define CONFIG_DEFAULT_PATH "/etc/tnd.ini"

/*
 * Results of ReadIniFile, beside the key readers' for the first bad line.
 */
enum {
    CONFIG_OK = 0,
    CONFIG_NO_PATH = -1,         /* an empty path */
    CONFIG_NO_SECTION = -2,      /* an empty section name */
    CONFIG_UNKNOWN_SECTION = -3, /* none of HTTP, RPC and TCP */
    CONFIG_NOT_OPENED = -4,      /* the file could not be opened */
    CONFIG_NOT_READ = -5         /* or not be read to its end */
};

/* Results of ReadHttpKey for a line that it does not take. */
enum {
    HTTPKEY_BAD_LINE = -1, /* no '=', an unknown key or an unknown verbosity */
    HTTPKEY_CLIENTS_TOO_LONG = -2,
    HTTPKEY_TERMINATOR_TOO_LONG = -3,
    HTTPKEY_AUTH_INFO_TOO_LONG = -4,
    HTTPKEY_AUTH_REALM_TOO_LONG = -5,
    HTTPKEY_SERVICE_TOO_LONG = -6, /* ServicePort or ServiceAddr */
    HTTPKEY_UNKNOWN_METHOD = -7,
    HTTPKEY_LOGFILE_TOO_LONG = -8,
    HTTPKEY_VOLTAGE_FILE_TOO_LONG = -9,
    HTTPKEY_VOLTAGE_AGE_TOO_LONG = -10,
    HTTPKEY_NO_VOLTAGE_AGE = -11 /* 0, or no number */
};

/* Results of ReadRpcKey and ReadTcpKey for a line that they do not take, and of Reconfig. */
enum {
    RPCKEY_UNKNOWN = -1,
    RPCKEY_NO_VALUE = -2,
    RPCKEY_VOLTAGE_FILE_TOO_LONG = -3,
    TCPKEY_NO_VALUE = -2,
    TCPKEY_REMOTE_HOST_TOO_LONG = -3,
    RECONFIG_FAILED = -1
};

/*
 * Keys of section HTTP; their defaults, limits and effects stand in common/settings.def. One more, Verbosity,
 * is kept in `ucVerbosity` (log.h) and takes that enumeration's names.
 */
extern RDX_API char szClientAddresses[CONFIG_ADDRESSES_SIZE];   /* ClientsAccepted */
extern RDX_API unsigned char ucProtocolVersion;                 /* ProtocolVersion: 10 or 11 */
extern RDX_API unsigned char ucEntityTerminator;                /* SendEOT: 0 or 1 */
extern RDX_API char szEntityTerminator[CONFIG_TERMINATOR_SIZE]; /* EOTString */
extern RDX_API unsigned char ucAuthRequired;                    /* AuthRequired: 0 or 1 */
extern RDX_API char szConfigAuthInfo[CONFIG_AUTH_INFO_SIZE];    /* AuthInfo */
extern RDX_API char szConfigAuthRealm[CONFIG_AUTH_REALM_SIZE];  /* AuthRealm */
extern RDX_API char szConfigSvcPort[CONFIG_PORT_SIZE];          /* ServicePort: a service or number */
extern RDX_API char szConfigSvcAddr[CONFIG_ADDRESS_SIZE];       /* ServiceAddr */
extern RDX_API int aiMethodsAllowed[CONFIG_METHODS];       /* MethodsAllowed: 1 and more allows the method */
extern RDX_API char szConfigLogfile[CONFIG_PATH_SIZE];     /* Logfile */
extern RDX_API unsigned char ucSupportNetscapeVM;          /* SupportNetscapeVM: 0 or 1 */
extern RDX_API char szConfigVoltageFile[CONFIG_PATH_SIZE]; /* VoltageFile, also in RPC */
extern RDX_API unsigned int uiVoltageMaxAge;               /* VoltageMaxAge: seconds */
extern RDX_API unsigned char ucVoltageFromCar;             /* VoltageFromCar, also in RPC: 0 or 1 */
extern RDX_API unsigned char ucLocalAccessAllowed;         /* LocalAccessAllowed: 0 or 1 */

/* Key of section TCP. */
extern RDX_API char szMorbelRemoteHost[CONFIG_REMOTE_HOST_SIZE]; /* RemoteHost [] */

/* Settings without a key. */
extern RDX_API unsigned char ucSemaProtection;           /* printed by the dump, nothing else [0] */
extern RDX_API unsigned char ucRunAsJunior;              /* 1: junior mode [0] */
extern RDX_API char szAuthInfo[CONFIG_CREDENTIALS_SIZE]; /* "Basic " and the credentials that are sent */
extern RDX_API char szAdminServerHost[CONFIG_ADMIN_HOST_SIZE]; /* administration server */
extern RDX_API unsigned int uiAdminServerPort;                 /* 0: none */
extern RDX_API int nMaxThreads;                                /* requests served at once, at least 1 */
extern RDX_API unsigned int g_dwPostMaxSizeToRead;             /* limits of a request's body in bytes: the */
extern RDX_API unsigned int g_dwPostMaxContLength;             /* smaller one holds; 65536 each */

/* Reconfigurations since the start, and the flag that makes the service loop end for one. */
extern RDX_API unsigned int uiReconfigurations;
extern RDX_API unsigned char ucReconfigured;

/* The build number that the dump prints. */
extern RDX_API const unsigned int uiBuildNumber;

/*
 * Sets the defaults, forbids every method, and leaves junior mode. LocalAccessAllowed keeps its value, so
 * that a host may set it before the server starts, as do the settings without a key other than
 * ucSemaProtection and ucRunAsJunior.
 */
RDX_API void SetDefaultConfig(void);

/*
 * Overlays the settings with one section of a file: "HTTP", "RPC" or "TCP", case ignored. Lines are cut
 * into pieces of 255 characters. A header opens the section when it contains its name; the first line that
 * begins with no key of the section ends it. Settings read before a bad line stay set. SendEOT and EOTString
 * take effect together, at the end of the file.
 * Returns CONFIG_OK, another CONFIG_ result, or the key reader's for the first bad line. Ends the process by
 * assertion when an argument is null.
 */
RDX_API int ReadIniFile(const char* szPath, const char* szSection);

/*
 * Read one line of section HTTP, RPC or TCP: a key, '=' and the value, with white space before the value
 * skipped. The line is a NUL-terminated text, trimmed (null: an empty one), and is left as it is. A value
 * that is refused changes nothing, but for VoltageMaxAge, which 0 sets to its default, and MethodsAllowed,
 * whose words before an unknown one stay allowed. ReadTcpKey takes a key that it does not know. Return
 * CONFIG_OK, or a result HTTPKEY_, RPCKEY_ or TCPKEY_.
 */
RDX_API int ReadHttpKey(char* line);
RDX_API int ReadRpcKey(char* line);
RDX_API int ReadTcpKey(char* line);

/* Removes the white space around a line, in place. A null or empty line is left alone. */
RDX_API void TrimLine(char* line);

/*
 * Reads section HTTP of the file again, over the settings as they are, and asks the service loop to start
 * anew. Returns 0, or RECONFIG_FAILED when the file could not be read, with the settings before the bad line
 * changed.
 */
RDX_API int Reconfig(const char* szPath);

/*
 * Prints the settings, the credentials included, as a table of labels to `stream` (null means StdOut), and
 * where it begins and ends to standard output; nothing at verbosity 0. Returns 0.
 */
RDX_API int DumpConfiguration(FILE* stream);

#ifdef __cplusplus
}
#endif

#endif
