// Numbers of ports as they come from outside.
#ifndef RDX_COMMON_PORTS_H
#define RDX_COMMON_PORTS_H

#include <cstdint>
#include <limits>
#include <optional>

namespace rdx {

inline constexpr std::int64_t kHighestPort = std::numeric_limits<std::uint16_t>::max();

// The port that a number names. What is no port is nowhere cut to 16 bits, where it would name another one.
constexpr std::optional<unsigned short> UsablePort(std::int64_t number) {
    if (number < 1 || number > kHighestPort) return std::nullopt;
    return static_cast<unsigned short>(number);
}

} // namespace rdx

#endif
