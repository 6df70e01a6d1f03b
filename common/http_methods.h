// The HTTP methods that the server knows, by the index that settings and requests hold.
#ifndef RDX_COMMON_HTTP_METHODS_H
#define RDX_COMMON_HTTP_METHODS_H

#include <array>

namespace rdx {

inline constexpr std::array<const char*, 8> kMethodNames = {"GET",    "PUT",   "POST",    "HEAD",
                                                            "DELETE", "TRACE", "OPTIONS", "CONNECT"};

} // namespace rdx

#endif
