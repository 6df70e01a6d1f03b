// The HTTP methods that the server knows, by the index that settings and requests hold.
#ifndef RDX_COMMON_HTTP_METHODS_H
#define RDX_COMMON_HTTP_METHODS_H

#include "common/text.h"

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

namespace rdx {

inline constexpr std::array<const char*, 8> kHttpMethods = {"GET",    "PUT",   "POST",    "HEAD",
                                                            "DELETE", "TRACE", "OPTIONS", "CONNECT"};

// The index of a method, case ignored.
inline std::optional<std::size_t> IndexOfHttpMethod(std::string_view name) {
    for (std::size_t i = 0; i < kHttpMethods.size(); ++i) {
        if (EqualsIgnoringCase(kHttpMethods[i], name)) return i;
    }
    return std::nullopt;
}

// Whether an entry of the table of allowed methods allows its method.
constexpr bool AllowsHttpMethod(int entry) { return entry >= 1; }

} // namespace rdx

#endif
