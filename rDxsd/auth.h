/*
 * HTTP Basic authentication against the system's shadow password database, and the Base64 codec it uses.
 *
 * The shadow database is the only authority: no user and no password is stored here, and what was decoded
 * on the way is wiped. Every function works on its arguments only and may run on several threads at once.
 */
#ifndef RDX_RDXSD_AUTH_H
#define RDX_RDXSD_AUTH_H

#include "common/export.h"
#include "http/httpreq.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Size in bytes of encoded credentials, the NUL included: longer ones are refused unread. */
enum { AUTH_CREDENTIALS_SIZE = 4096 };

/*
 * Encodes bytes as Base64 text, padded with "=".
 *   in   in: `len` bytes.
 *   len  in: their number.
 *   out  out: the text; must hold (len + 2) / 3 * 4 + 1 bytes, the NUL included.
 * Returns 1.
 */
RDX_API int Base64Encode(const unsigned char* in, unsigned long len, char* out);

/*
 * Decodes Base64 text: leading blanks and tabs are skipped, and the first byte outside the alphabet ends it,
 * silently.
 *   in      in: the text; nothing behind its NUL is read.
 *   out     out: the bytes, NUL-terminated at their true number; must hold *outLen + 1 bytes, of which the
 *           last group is always written whole.
 *   outLen  out: (n + 3) / 4 * 3 for the n characters decoded: 1 or 2 more than the true number when the
 *           last group is short. Callers size by it, and take the bytes up to the NUL.
 * Returns 1.
 */
RDX_API int Base64Decode(const char* in, unsigned char* out, unsigned long* outLen);

/*
 * Checks the credentials of a Basic authorization: the Base64 form of "user:password".
 *   encoded   in: the credentials; AUTH_CREDENTIALS_SIZE characters and more are refused.
 *   user      out, optional: a heap copy of the user's name, the caller's; null when there was none.
 *   password  out, optional: likewise of the password. Wipe it before it is freed.
 * Both are set whenever the credentials could be decoded, valid or not.
 * Returns 1 when the credentials are valid; 0 when they are malformed, the user is unknown, the password
 * is wrong, the account is locked or has no password, or memory is short.
 */
RDX_API int HandleBasicAuth(const char* encoded, char** user, char** password);

enum { AUTH_GRANTED = 0, AUTH_REFUSED = 1 };

/*
 * Checks the "Authorization" header of a request. Unlike HandleBasicAuth it does not say yes with 1: compare
 * with the names.
 * Returns AUTH_GRANTED when it carries valid Basic credentials and AUTH_REFUSED otherwise.
 */
RDX_API int rDxCheckAuth(HttpRequest* req);

#ifdef __cplusplus
}
#endif

#endif
