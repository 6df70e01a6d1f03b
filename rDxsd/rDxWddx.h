/*
 * Status packets and argument readers: what every method handler shares.
 *
 * Conventions
 *   - A result packet is a structure whose member "Status" is a structure of "code" (integer), "msg"
 *     (integer) and "params" (a value). Keys are case-sensitive. Methods add their own keys beside "Status".
 *   - Putting a value into a packet hands it over: the functions that build packets own the values they are
 *     given, and free them when memory is short. wddxFree releases a whole packet.
 *   - Readers return values and texts that still belong to the structure they were read from.
 *   - Every function works on its arguments only and may run on several threads at once.
 */
#ifndef RDX_RDXSD_RDXWDDX_H
#define RDX_RDXSD_RDXWDDX_H

#include "common/export.h"
#include "wddx/wddx.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What comes of parsing an argument packet. */
enum {
    WDDX_ARGS_PARSED = 0,
    WDDX_ARGS_NO_TEXT = -1,
    WDDX_ARGS_TAG_UNTERMINATED = -2, /* a tag without its end */
    WDDX_ARGS_NOT_A_STRUCTURE = -3,  /* a packet, but its value is no structure */
    WDDX_ARGS_NOT_A_PACKET = 400     /* the client's mistake, as HTTP counts it */
};

enum { WDDX_PARAM_READ = 0, WDDX_PARAM_UNREADABLE = -1 };

enum { WDDX_TRIMMED = 0, WDDX_TRIMMED_IN_PART = -1 };

/*
 * The structure "code", "msg", "params", in this order. `params` is handed over; null gives a null value.
 * Returns the structure, the caller's, or null when memory is short.
 */
RDX_API WddxValue* CreateWddxStatus(int code, int msg, WddxValue* params);

/*
 * A result packet: a structure that holds CreateWddxStatus(code, msg, params) as "Status".
 * Returns the packet, the caller's, or null when memory is short.
 */
RDX_API WddxValue* CreateWddxStatusPacket(int code, int msg, WddxValue* params);

/*
 * The "params" of a packet's member "status", or null. The key is looked up in lower case, as foreign packets
 * have it that programs read with this function; in a packet of CreateWddxStatusPacket it finds nothing.
 */
RDX_API WddxValue* GetStatusParams(WddxValue* packet);

/*
 * The owner structure: "AllocatedBy" (`allocatedBy`), then "DeviceOwner" (`owner`), both strings; a null
 * text gives an empty string. Returns the structure, the caller's, or null when memory is short.
 */
RDX_API WddxValue* CreateWddxOwner(const char* owner, const char* allocatedBy);

/*
 * Parses the text of an argument packet.
 *   text  in: the packet; its white space outside strings is removed in place (see TrimWddxArgs). An empty
 *         text ends the process by assertion.
 *   out   out: the structure of arguments, the caller's; null on failure.
 * Returns WDDX_ARGS_PARSED, or one of the codes below it that says why not.
 */
RDX_API int ParseWddxPacketData(char* text, WddxValue** out);

/* The text of the string member `name`, or null when it is missing or not a string. */
RDX_API char* GetDataStringParam(WddxValue* s, const char* name);

/*
 * Reads the member `name` as a number: an integer as it is, a boolean as 0 or 1.
 * Returns WDDX_PARAM_READ; WDDX_PARAM_UNREADABLE when it is missing or of another type, with `*out`
 * untouched.
 */
RDX_API int GetDataIntParam(WddxValue* s, const char* name, int* out);

/* The member `name` if it is an array, or null. */
RDX_API WddxValue* GetDataArrayParam(WddxValue* s, const char* name);

/*
 * Removes every carriage return, line feed, tab and blank that stands neither inside a tag nor inside the
 * content of a string element, in place. A null or empty text ends the process by assertion.
 * Returns WDDX_TRIMMED; WDDX_TRIMMED_IN_PART for a tag without its end, with the text trimmed up to that tag.
 */
RDX_API int TrimWddxArgs(char* text);

#ifdef __cplusplus
}
#endif

#endif
