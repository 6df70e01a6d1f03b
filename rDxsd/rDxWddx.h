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
 * The "params" of a packet's member "status", or null. The key is looked up in lower case, so nothing is
 * found in a packet of CreateWddxStatusPacket (kept: clients of the library read foreign packets with it).
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
 * Returns 0; -1 no text; -2 a tag without its end; 400 not a packet; -3 the packet's value is not a
 * structure.
 */
RDX_API int ParseWddxPacketData(char* text, WddxValue** out);

/* The text of the string member `name`, or null when it is missing or not a string. */
RDX_API char* GetDataStringParam(WddxValue* s, const char* name);

/*
 * Reads the member `name` as a number: an integer as it is, a boolean as 0 or 1.
 * Returns 0; -1 when it is missing or of another type, with `*out` untouched.
 */
RDX_API int GetDataIntParam(WddxValue* s, const char* name, int* out);

/* The member `name` if it is an array, or null. */
RDX_API WddxValue* GetDataArrayParam(WddxValue* s, const char* name);

/*
 * Removes every carriage return, line feed, tab and blank that stands neither inside a tag nor inside the
 * content of a string element, in place. A null or empty text ends the process by assertion.
 * Returns 0; -1 for a tag without its end, with the text trimmed up to that tag.
 */
RDX_API int TrimWddxArgs(char* text);

#ifdef __cplusplus
}
#endif

#endif
