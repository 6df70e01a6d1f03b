// The second half of TempFileName: where a unique name becomes a path.
#ifndef RDX_COMMON_PORTABILITY_INTERNAL_H
#define RDX_COMMON_PORTABILITY_INTERNAL_H

#include <span>
#include <string_view>

namespace rdx {

// Puts a unique name below the temporary directory, or takes it as it is when it has a folder of its own.
// TempFileName's result.
int PlaceTempName(std::string_view name, std::span<char> path);

} // namespace rdx

#endif
