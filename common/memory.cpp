#include "common/memory.h"

#include <algorithm>
#include <cstring>

namespace rdx {

OwnedText AllocateBytes(std::size_t size) {
    return OwnedText(static_cast<char*>(std::malloc(std::max<std::size_t>(size, 1))));
}

OwnedText CopyText(std::string_view text) { return JoinText(text, {}); }

OwnedText JoinText(std::string_view head, std::string_view tail) {
    OwnedText joined = AllocateBytes(head.size() + tail.size() + 1);
    if (joined) {
        char* const end =
            std::copy(tail.begin(), tail.end(), std::copy(head.begin(), head.end(), joined.get()));
        *end = '\0';
    }
    return joined;
}

} // namespace rdx
