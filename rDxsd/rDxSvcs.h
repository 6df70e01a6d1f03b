/*
 * The device library, libDxSvcs.so: nineteen functions through which every device operation is done.
 *
 * This is the whole contract between the server and a device. librDxsH.so resolves these names when it
 * is loaded; whichever libDxSvcs.so the loader finds first provides them.
 *
 * Conventions
 *   - Every function returns 0 on success; other results are refusals and failures, whose meaning for a
 *     caller of the server stands in docs/protocol.md.
 *   - An output text is a buffer of the caller's of RDX_SVCS_TEXT_SIZE bytes, the NUL included, unless a
 *     size is passed. It starts as an empty NUL-terminated text, unless the function says otherwise, and may
 *     be left alone.
 *   - Input texts are NUL-terminated and belong to the caller; they are valid during the call only.
 *   - `unsigned long` values that mean "none" or "unknown" have all bits set at the type's own width.
 *   - Serving threads call concurrently: every function must be safe to call from several threads.
 */
#ifndef RDX_RDXSD_RDXSVCS_H
#define RDX_RDXSD_RDXSVCS_H

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Size in bytes of an output text whose size is not passed, the NUL included. */
enum { RDX_SVCS_TEXT_SIZE = 4096 };

/* Value of RDXConf.uiLength: the record's size in bytes. */
enum { RDX_CONF_LENGTH = 8 };

/* The IP configuration as rDxGetIpConfiguration reports it. */
typedef struct RDXConf {
    unsigned int uiLength; /* the record's size, RDX_CONF_LENGTH; set by the caller */
    int iMode;             /* address assignment: 1, 2 or 3; written by the library */
} RDXConf;

/* What rDxGetVehicleStatus measured. */
typedef struct Measures {
    int iReserved0;
    int iTerminal15; /* voltage of terminal 15, reported to clients as it is */
    int iTerminal30; /* voltage of terminal 30, likewise */
    int iReserved3;
    int iReserved4;
    int iKLine;    /* state of the K line */
    int iLLine;    /* state of the L line */
    int iTdPeriod; /* period of the trigger (TD) signal, raw units */
    int iTdValid;  /* not 0: the TD signal is valid */
} Measures;

/*
 * Claims the device for `owner`. `client` is the caller's "address:port". The two output texts are not
 * looked at; `flag` is always 1. 0 allocated, 1 already allocated, 3 and others refused.
 */
RDX_API int rDxAllocateDevice(const char* client, const char* owner, const char* clientIpAddress,
                              const char* clientTcpPorts, char* output1, char* output2, int flag);

/*
 * Gives the device back. `flag` is always 1. 0 released, 1 not allocated any more with who released it
 * in `releasedBy`, 2 owned by another, 3 and others refused.
 */
RDX_API int rDxReleaseDevice(const char* client, const char* owner, char* releasedBy, int flag);

/* The present owner and the client that allocated the device. 0 with both texts filled. */
RDX_API int rDxGetOwner(char* owner, char* allocatedBy);

/* The name of the device's type into `name` of `size` bytes, the NUL included. */
RDX_API int rDxGetDeviceType(char* name, int size);

/*
 * Who uses the device: `*controlled` not 0 while a client controls it, a text for the state of
 * allocation (left alone it reads "0"), the owner, and the controlling client. `reserved` is null.
 */
RDX_API int rDxGetAllocStatus(unsigned long* controlled, char* allocation, char* owner,
                              char* controllingClient, void* reserved);

/* The revision of the firmware. */
RDX_API int rDxGetFirmwareRev(unsigned long* revision);

/* The addresses in use, as dotted texts of at most `size` bytes each, the NUL included. The result is not
 * looked at. */
RDX_API int rDxGetActiveIpConf(char* ipAddress, char* netmask, char* gateway, int size);

/* The name of the network interface into `name` of `size` bytes, the NUL included. */
RDX_API int rDxGetNetInterface(char* name, int size);

/* The configured way of address assignment. */
RDX_API int rDxGetIpConfiguration(RDXConf* configuration);

/*
 * Sets the IP configuration; `mode` is 1 to 4, `*rebootRequired` becomes not 0 when the settings need a
 * restart to take effect. 0; 1; 2 owned by another; 3; others refused.
 */
RDX_API int rDxSetIpConfiguration(const char* owner, const char* ipAddress, const char* netmask,
                                  const char* gateway, int mode, const char* hostname,
                                  unsigned long* rebootRequired);

/*
 * Measures the vehicle's lines for `owner`. `*mostState` has all bits set on a device without a MOST
 * ring. 0 with both filled; 1; 2 owned by another; 3; others failed.
 */
RDX_API int rDxGetVehicleStatus(const char* owner, Measures* measures, unsigned long* mostState);

/* The quality of the transmission to the vehicle. */
RDX_API int rDxGetTransmissionQuality(unsigned long* quality);

/*
 * Starts the self test: `mode` 0 short, 1 detailed; `await` not 0 waits for its end. 0; 1; 2 owned by
 * another; 3; 5; others failed.
 */
RDX_API int rDxRunDeviceSelfTest(const char* owner, int mode, int await);

/* The state of the self test; a reason with all bits set is unknown. */
RDX_API int rDxGetCurrentSelftestStatus(unsigned long* code, unsigned long* reason);

/* Asks for configuration mode 0, 1 or 2. 0; 1; 2 owned by another; 3; others failed. */
RDX_API int rDxInitiateCfgRequest(const char* owner, unsigned long mode);

/*
 * Sets `count` attributes given as three parallel arrays: names and values (an entry may be null) and
 * persistence flags. The arrays belong to the caller. 0; 1; 2 owned by another; 3; -1; others failed.
 */
RDX_API int rDxSetDeviceAttributes(const char* owner, char** names, char** values, int* persistence,
                                   int count, int enforceRegistration);

/*
 * The attributes as three parallel arrays of `*count` entries, which belong to the device library and are
 * handed back to rdxFreeDeviceAttributes after every 0, also when there are none.
 *   names, values  out: an entry may be null, and so may the array; an attribute without either is skipped
 *   persistence    out: not 0 for an attribute that outlives a restart; null is as good as all 0
 *   count          out: 0 or less without attributes
 */
RDX_API int rdxGetDeviceAttributes(char*** names, char*** values, int** persistence, int* count);

/* Takes back what rdxGetDeviceAttributes gave. The result is not looked at. */
RDX_API int rdxFreeDeviceAttributes(char** names, char** values, int* persistence, int count);

/*
 * Loads new firmware from `downloadUrl`. `revision` always has all bits set. 0 accepted; 1; 2 owned by
 * another; 3; 10; 11; 12; 14; others failed.
 */
RDX_API int rDxUpdateDeviceFirmware(const char* owner, const char* downloadUrl, unsigned long revision,
                                    int isSigned, const char* methodOfTrust, const char* caCertificate);

#ifdef __cplusplus
}
#endif

#endif
