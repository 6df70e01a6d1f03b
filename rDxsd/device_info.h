/*
 * What the status methods tell of the machine itself: the hardware address of its network interface and the
 * time since the server was started. Functions may run on several threads at once.
 */
#ifndef RDX_RDXSD_DEVICE_INFO_H
#define RDX_RDXSD_DEVICE_INFO_H

#include "common/export.h"
#include "wddx/wddx.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Size in bytes of a hardware address as a text, the NUL included, and as bytes. */
enum { MAC_ADDRESS_TEXT_SIZE = 18, MAC_ADDRESS_SIZE = 6 };

/*
 * The hardware address of the device's network interface ("eth0" when the device library names none) in the
 * form "00:1b:2c:3d:4e:5f" into `szAddress` of MAC_ADDRESS_TEXT_SIZE bytes; an empty text when it cannot be
 * read. `uiSize` is not used. Returns 0.
 */
RDX_API int GetMacAddress(char* szAddress, unsigned int uiSize);

enum { MAC_ADDRESS_READ = 0, MAC_ADDRESS_NOT_READ = -1 };

/*
 * The hardware address of the interface `szName` into `pAddress` of MAC_ADDRESS_SIZE bytes. Returns
 * MAC_ADDRESS_READ, or MAC_ADDRESS_NOT_READ with a message on the standard error stream and `pAddress` as it
 * was. Keeps one socket open for the life of the process, from the first call on.
 */
RDX_API int GetMacAddressByName(const char* szName, unsigned char* pAddress);

/* Milliseconds since `server_start_time`, modulo 2^32. */
RDX_API uint32_t GetTickCount(void);

/* Reserved: a null value, which the caller frees. Null when memory is short. */
RDX_API WddxValue* CreateSlpAttributesArray(void);

#ifdef __cplusplus
}
#endif

#endif
