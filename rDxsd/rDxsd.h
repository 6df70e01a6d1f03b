/*
 * The device service: the handler of "/rDx" requests, its dispatcher and the method handlers.
 *
 * Conventions of the method handlers
 *   - `call` holds the argument packet, `result` receives the result packet; both belong to the caller.
 *   - A handler returns RDX_ANSWERED with a result assigned, RDX_BAD_CALL when an argument is missing, of the
 *     wrong type or too long (the device is not touched then), or RDX_NOT_ASSIGNED. What the device answers,
 *     refusals included, travels inside the result packet.
 *   - Handlers keep no state and may run on several threads at once.
 */
#ifndef RDX_RDXSD_RDXSD_H
#define RDX_RDXSD_RDXSD_H

#include "common/export.h"
#include "http/httpreq.h"
#include "rDxsd/pdata.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Number of entries of rdxCommands. */
enum { RDX_COMMAND_COUNT = 9 };

/* What comes of a call. */
enum {
    RDX_ANSWERED = 0,
    RDX_BAD_CALL = PDATA_BAD_CALL, /* arguments missing or not readable */
    RDX_NOT_AUTHORISED =
        -HTTP_STATUS_UNAUTHORIZED, /* the method needs credentials, and the request carries no valid ones */
    RDX_BODY_TOO_LONG = -3,        /* the body does not fit: it must be shorter than the capacity */
    RDX_NO_RESULT = -4,            /* no handler produced a result */
    RDX_UNKNOWN_STATUS = -5,       /* a handler left a status that means nothing here */
    RDX_NOT_ASSIGNED = -6          /* the result could not be assigned */
};

/*
 * Names of methods, for clients of the library, which count on nine. "rdxGetVehicleStatus" and whatever came
 * later are served too and are not among them.
 */
extern RDX_API const char* const rdxCommands[RDX_COMMAND_COUNT];

/* Calls handled so far; the number of a call is its value after counting. Counted atomically. */
extern RDX_API int g_nRefCount;

/* Start of the server in seconds since 1970, or 0; set before the server serves. */
extern RDX_API unsigned int server_start_time;

/*
 * Handles one device-service request.
 *   req      in: the request, with a URI.
 *   out      out: the response body.
 *   outLen   in: the capacity of `out` in bytes; out: the body's length. The body of a result counts
 *            without its NUL, the body that says "Unauthorized" with it: clients receive that byte.
 *   outFlag  out: not 0 asks the server to stop; written with a result only.
 * Returns RDX_ANSWERED with the response body in `out`, or another of the codes above; a code of
 * GetMultipartCallData or GetStandardCallData; of an unknown method whose arguments cannot be read also
 * WDDX_ARGS_TAG_UNTERMINATED and WDDX_ARGS_NOT_A_STRUCTURE.
 * On failure `out`, `*outLen` and `*outFlag` are untouched.
 */
RDX_API int rDxHandler(HttpRequest* req, char* out, unsigned long* outLen, unsigned char* outFlag);

/*
 * Calls the handler of the method that `call` names; letter case is ignored. Every method but
 * "rdxGetVersion" and "rdxGetDeviceStatus" needs credentials, unknown names included.
 * Returns the handler's code, or RDX_NOT_AUTHORISED, with status and flag of `result` 0.
 */
RDX_API int rDxProcessCall(HttpRequest* req, TavrinRequest* call, TavrinResponse* result);

/* "rdxGetVersion": the version of the protocol. */
RDX_API int ProcessGetVersion(TavrinRequest* call, TavrinResponse* result);

/* "rdxGetDeviceStatus": the state of the device. */
RDX_API int ProcessGetDeviceStatus(TavrinRequest* call, TavrinResponse* result);

/* "rdxGetVehicleStatus": voltages, lines and transmission quality of the vehicle. */
RDX_API int ProcessGetVehicleStatus(TavrinRequest* call, TavrinResponse* result);

/* "rdxAllocateDevice": claims the device for an owner. */
RDX_API int ProcessAllocateDevice(TavrinRequest* call, TavrinResponse* result);

/* "rdxReleaseDevice": gives the device back. */
RDX_API int ProcessReleaseDevice(TavrinRequest* call, TavrinResponse* result);

/* "rdxInitiateCfgRequest": asks for a configuration mode. */
RDX_API int ProcessInitiateCfgRequest(TavrinRequest* call, TavrinResponse* result);

/* "rdxSetIpConfiguration": sets the network configuration. */
RDX_API int ProcessSetIpConfiguration(TavrinRequest* call, TavrinResponse* result);

/* "rdxSetDeviceAttributes": sets service-location attributes. */
RDX_API int ProcessSetDeviceAttributes(TavrinRequest* call, TavrinResponse* result);

/* "rdxRunDeviceSelfTest": starts a self test. */
RDX_API int ProcessRunDeviceSelfTest(TavrinRequest* call, TavrinResponse* result);

/* "rdxUpdateDeviceFirmware": loads new firmware. */
RDX_API int ProcessUpdateDeviceFirmware(TavrinRequest* call, TavrinResponse* result);

/*
 * Every other name: a status packet that says so (42010, 9003).
 * Returns RDX_ANSWERED; the code of ParseWddxPacketData when the arguments could not be parsed;
 * RDX_NOT_ASSIGNED.
 */
RDX_API int ProcessUnknown(TavrinRequest* call, TavrinResponse* result);

#ifdef __cplusplus
}
#endif

#endif
